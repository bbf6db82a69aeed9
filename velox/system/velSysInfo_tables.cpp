#include <cstddef>
#include <iterator>

#include "velox/system/velSysInfo.hpp"

namespace velox {
namespace {

using enum TOSVersion;
using enum TOSVersionEx;

template <class E>
struct TNameRow {
  E Value;
  const char* Name;
};

constexpr TNameRow<TOSVersion> VersionNames[] = {
    {osUnknown, "Unknown"},        {osWin32s, "Windows 32s"},     {os95, "Windows 95"},
    {os98, "Windows 98"},          {osMe, "Windows Me"},          {osNT, "Windows NT"},
    {os2000, "Windows 2000"},      {osXP, "Windows XP"},          {os2003, "Windows 2003"},
    {os2003R2, "Windows 2003 R2"}, {osVista, "Windows Vista"},    {osLonghorn, "Windows Longhorn"},
    {osSeven, "Windows 7"},        {os2008R2, "Windows 2008 R2"}, {osEight, "Windows 8"},
    {os2012, "Windows 2012"},      {osEightOne, "Windows 8.1"},   {os2012R2, "Windows 2012 R2"},
    {osTen, "Windows 10"},         {os2016, "Windows 2016"},
};

constexpr TNameRow<TOSVersionEx> EditionNames[] = {
    {osxUnknown, "Unknown"},
    {osx95, "Windows 95"},
    {osx95OSR2, "Windows 95 OSR2"},
    {osx98, "Windows 98"},
    {osx98SE, "Windows 98 SE"},
    {osxMe, "Windows Me"},
    {osNTWorkstation, "Windows NT Workstation 4.0"},
    {osNTServer, "Windows NT Server 4.0"},
    {osNTServerEnterprise, "Windows NT Server 4.0 Enterprise Edition"},
    {os2000Professional, "Windows 2000 Professional"},
    {os2000Server, "Windows 2000 Server"},
    {os2000ServerAdvanced, "Windows 2000 Advanced Server"},
    {os2000ServerDatacenter, "Windows 2000 Datacenter Server"},
    {os2000ServerSmallBusiness, "Windows Small Business Server 2000"},
    {osXPHome, "Windows XP Home"},
    {osXPProfessional, "Windows XP Professional"},
    {osXPTabletPC, "Windows XP Tablet PC Edition"},
    {osXPMediaCenter, "Windows XP Media Center Edition"},
    {osXPStarter, "Windows XP Starter Edition"},
    {osXPEmbedded, "Windows XP Embedded"},
    {os2003Standard, "Windows Server 2003, Standard Edition"},
    {os2003Web, "Windows Server 2003, Web Edition"},
    {os2003Enterprise, "Windows Server 2003, Enterprise Edition"},
    {os2003Datacenter, "Windows Server 2003, Datacenter Edition"},
    {os2003ComputeCluster, "Windows Server 2003, Compute Cluster Edition"},
    {os2003Storage, "Windows Storage Server 2003"},
    {os2003SmallBusiness, "Windows Small Business Server 2003"},
    {os2003R2Standard, "Windows Server 2003 R2, Standard Edition"},
    {os2003R2Web, "Windows Server 2003 R2, Web Edition"},
    {os2003R2Enterprise, "Windows Server 2003 R2, Enterprise Edition"},
    {os2003R2Datacenter, "Windows Server 2003 R2, Datacenter Edition"},
    {os2003R2ComputeCluster, "Windows Server 2003 R2, Compute Cluster Edition"},
    {os2003R2Storage, "Windows Storage Server 2003 R2"},
    {os2003R2SmallBusiness, "Windows Small Business Server 2003 R2"},
    {osVistaStarter, "Windows Vista Starter"},
    {osVistaHomeBasic, "Windows Vista Home Basic"},
    {osVistaHomeBasicN, "Windows Vista Home Basic N"},
    {osVistaHomePremium, "Windows Vista Home Premium"},
    {osVistaUltimate, "Windows Vista Ultimate"},
    {osVistaBusiness, "Windows Vista Business"},
    {osVistaBusinessN, "Windows Vista Business N"},
    {osVistaEnterprise, "Windows Vista Enterprise"},
    {osLonghornStandardCore, "Windows Server \"Longhorn\", Standard Edition (core installation)"},
    {osLonghornStandardFull, "Windows Server \"Longhorn\", Standard Edition"},
    {osLonghornEnterpriseCore,
     "Windows Server \"Longhorn\", Enterprise Edition (core installation)"},
    {osLonghornEnterpriseFull, "Windows Server \"Longhorn\", Enterprise Edition"},
    {osLonghornEnterpriseIA64,
     "Windows Server \"Longhorn\", Enterprise Edition for Itanium-based Systems"},
    {osLonghornDatacenterCore,
     "Windows Server \"Longhorn\", Datacenter Edition (core installation)"},
    {osLonghornDatacenterFull, "Windows Server \"Longhorn\", Datacenter Edition"},
    {osLonghornHome, "Windows Server \"Longhorn\", Home Edition"},
    {osLonghornWeb, "Windows Server \"Longhorn\", Web Edition"},
    {osLonghornCluster, "Windows Server \"Longhorn\", Cluster Edition"},
    {osLonghornForSmallBusiness, "Windows Server \"Longhorn\", for Small Business Edition"},
    {osLonghornSmallBusiness, "Windows Small Business Server \"Longhorn\""},
    {osLonghornSmallBusinessPremium, "Windows Small Business Server \"Longhorn\", Premium Edition"},
    {osLonghornStorageExpress, "Windows Storage Server \"Longhorn\", Express Edition"},
    {osLonghornStorageStandard, "Windows Storage Server \"Longhorn\", Standard Edition"},
    {osLonghornStorageWorkgroup, "Windows Storage Server \"Longhorn\", Workgroup Edition"},
    {osLonghornStorageEnterprise, "Windows Storage Server \"Longhorn\", Enterprise Edition"},
    {os2008R2StandardFull, "Windows Server 2008 R2 Standard"},
    {os2008R2DatacenterFull, "Windows Server 2008 R2 Datacenter"},
    {os2008R2EnterpriseFull, "Windows Server 2008 R2 Enterprise"},
    {os2008R2DatacenterCore, "Windows Server 2008 R2 Datacenter (core installation)"},
    {os2008R2StandardCore, "Windows Server 2008 R2 Standard (core installation)"},
    {os2008R2EnterpriseCore, "Windows Server 2008 R2 Enterprise (core installation)"},
    {os2008R2EnterpriseIA64, "Windows Server 2008 R2 Enterprise for Itanium-based Systems"},
    {os2008R2Web, "Windows Web Server 2008 R2"},
    {os2008R2WebCore, "Windows Web Server 2008 R2 (core installation)"},
    {os2008R2HPC, "Windows HPC Server 2008 R2"},
    {os2008R2StorageServer, "Windows Storage Server 2008 R2"},
    {os2008R2StorageExpress, "Windows Storage Server 2008 R2 Express"},
    {os2008R2StorageStandard, "Windows Storage Server 2008 R2 Standard"},
    {os2008R2StorageWorkgroup, "Windows Storage Server 2008 R2 Workgroup"},
    {os2008R2StorageEnterprise, "Windows Storage Server 2008 R2 Enterprise"},
    {osSevenUltimate, "Windows 7 Ultimate"},
    {osSevenHomeBasic, "Windows 7 Home Basic"},
    {osSevenHomeBasicN, "Windows 7 Home Basic N"},
    {osSevenHomePremium, "Windows 7 Home Premium"},
    {osSevenHomePremiumN, "Windows 7 Home Premium N"},
    {osSevenEnterprise, "Windows 7 Enterprise"},
    {osSevenProfessional, "Windows 7 Professional"},
    {osSevenProfessionalN, "Windows 7 Professional N"},
    {osSevenProfessionalWMC, "Windows 7 Professional with WMC"},
    {osSevenStarter, "Windows 7 Starter"},
    {os2012R2Foundation, "Windows Server 2012 R2 Foundation"},
    {os2012R2Essentials, "Windows Server 2012 R2 Essentials"},
    {os2012R2Standard, "Windows Server 2012 R2 Standard"},
    {os2012R2Datacenter, "Windows Server 2012 R2 Datacenter"},
    {osTenHome, "Windows 10 Home"},
    {osTenHomeChina, "Windows 10 Home China"},
    {osTenHomeN, "Windows 10 Home N"},
    {osTenHomeSingleLanguage, "Windows 10 Home Single Language"},
    {osTenProfessional, "Windows 10 Pro"},
    {osTenProfessionalN, "Windows 10 Pro N"},
    {osTenEducation, "Windows 10 Education"},
    {osTenEducationN, "Windows 10 Education N"},
    {osTenEnterprise, "Windows 10 Enterprise"},
    {osTenEnterpriseE, "Windows 10 Enterprise E"},
    {osTenEnterpriseEvaluation, "Windows 10 Enterprise Evaluation"},
    {osTenEnterpriseN, "Windows 10 Enterprise N"},
    {osTenEnterpriseNEvaluation, "Windows 10 Enterprise N Evaluation"},
    {osTenEnterprise2015LTSB, "Windows 10 Enterprise 2015 LTSB"},
    {osTenEnterprise2015LTSBEvaluation, "Windows 10 Enterprise 2015 LTSB Evaluation"},
    {osTenEnterprise2015LTSBN, "Windows 10 Enterprise 2015 LTSB N"},
    {osTenEnterprise2015LTSBNEvaluation, "Windows 10 Enterprise 2015 LTSB N Evaluation"},
};

/// A value's row is the one at its number.
template <class E, size_t Count>
constexpr bool InOrder(const TNameRow<E> (&Rows)[Count]) {
  for (size_t i = 0; i < Count; ++i) {
    if (static_cast<size_t>(Rows[i].Value) != i) return false;
  }
  return true;
}
static_assert(InOrder(VersionNames) && InOrder(EditionNames));
static_assert(std::size(EditionNames) == OSVersionExCount);

template <class E, size_t Count>
const char* NameOf(const TNameRow<E> (&Rows)[Count], E Value) noexcept {
  const auto index = static_cast<size_t>(Value);
  return Rows[index < Count ? index : 0].Name;
}

struct TProductRow {
  TOSVersion Version;
  uint32_t Product;
  TOSVersionEx VersionEx;
};

constexpr TProductRow Products[] = {
    {osLonghorn, 7, osLonghornStandardFull},
    {osLonghorn, 8, osLonghornDatacenterFull},
    {osLonghorn, 9, osLonghornSmallBusiness},
    {osLonghorn, 24, osLonghornSmallBusiness},
    {osLonghorn, 10, osLonghornEnterpriseFull},
    {osLonghorn, 12, osLonghornDatacenterCore},
    {osLonghorn, 13, osLonghornStandardCore},
    {osLonghorn, 14, osLonghornEnterpriseCore},
    {osLonghorn, 15, osLonghornEnterpriseIA64},
    {osLonghorn, 17, osLonghornWeb},
    {osLonghorn, 18, osLonghornCluster},
    {osLonghorn, 19, osLonghornHome},
    {osLonghorn, 20, osLonghornStorageExpress},
    {osLonghorn, 21, osLonghornStorageStandard},
    {osLonghorn, 22, osLonghornStorageWorkgroup},
    {osLonghorn, 23, osLonghornStorageEnterprise},
    {osLonghorn, 25, osLonghornSmallBusinessPremium},
    {os2008R2, 7, os2008R2StandardFull},
    {os2008R2, 8, os2008R2DatacenterFull},
    {os2008R2, 10, os2008R2EnterpriseFull},
    {os2008R2, 12, os2008R2DatacenterCore},
    {os2008R2, 13, os2008R2StandardCore},
    {os2008R2, 14, os2008R2EnterpriseCore},
    {os2008R2, 15, os2008R2EnterpriseIA64},
    {os2008R2, 17, os2008R2Web},
    {os2008R2, 18, os2008R2HPC},
    {os2008R2, 19, os2008R2StorageServer},
    {os2008R2, 20, os2008R2StorageExpress},
    {os2008R2, 21, os2008R2StorageStandard},
    {os2008R2, 22, os2008R2StorageWorkgroup},
    {os2008R2, 23, os2008R2StorageEnterprise},
    {os2008R2, 29, os2008R2WebCore},
    {os2012R2, 7, os2012R2Standard},
    {os2012R2, 8, os2012R2Datacenter},
    {os2012R2, 19, os2012R2Essentials},
    {os2012R2, 33, os2012R2Foundation},
    {osVista, 1, osVistaUltimate},
    {osVista, 2, osVistaHomeBasic},
    {osVista, 3, osVistaHomePremium},
    {osVista, 4, osVistaEnterprise},
    {osVista, 5, osVistaHomeBasicN},
    {osVista, 6, osVistaBusiness},
    {osVista, 11, osVistaStarter},
    {osVista, 16, osVistaBusinessN},
    {osSeven, 1, osSevenUltimate},
    {osSeven, 2, osSevenHomeBasic},
    {osSeven, 3, osSevenHomePremium},
    {osSeven, 4, osSevenEnterprise},
    {osSeven, 5, osSevenHomeBasicN},
    {osSeven, 11, osSevenStarter},
    {osSeven, 26, osSevenHomePremiumN},
    {osSeven, 48, osSevenProfessional},
    {osSeven, 49, osSevenProfessionalN},
    {osSeven, 103, osSevenProfessionalWMC},
    {osTen, 4, osTenEnterprise},
    {osTen, 27, osTenEnterpriseN},
    {osTen, 48, osTenProfessional},
    {osTen, 49, osTenProfessionalN},
    {osTen, 70, osTenEnterpriseE},
    {osTen, 72, osTenEnterpriseEvaluation},
    {osTen, 84, osTenEnterpriseNEvaluation},
    {osTen, 98, osTenHomeN},
    {osTen, 99, osTenHomeChina},
    {osTen, 100, osTenHomeSingleLanguage},
    {osTen, 101, osTenHome},
    {osTen, 121, osTenEducation},
    {osTen, 122, osTenEducationN},
    {osTen, 125, osTenEnterprise2015LTSB},
    {osTen, 126, osTenEnterprise2015LTSBN},
    {osTen, 129, osTenEnterprise2015LTSBEvaluation},
    {osTen, 130, osTenEnterprise2015LTSBNEvaluation},
};

}  // namespace

const char* OSVersionName(TOSVersion Version) noexcept { return NameOf(VersionNames, Version); }

const char* OSVersionExName(TOSVersionEx VersionEx) noexcept {
  return NameOf(EditionNames, VersionEx);
}

TOSVersionEx EditionOfProduct(TOSVersion Version, uint32_t Product) noexcept {
  for (const TProductRow& row : Products) {
    if (row.Version == Version && row.Product == Product) return row.VersionEx;
  }
  return osxUnknown;
}

}  // namespace velox
