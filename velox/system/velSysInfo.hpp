#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "velox/runtime/velCompiler.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velStrings.hpp"
#include "velox/runtime/velWindows.hpp"

/// Which Windows this process runs on, with edition, service pack and processor, and the serial
/// ports that the system reports.
///
///     const TSystemInfo* system = TSystemInfo::GetInstance();
///     Print(system->GetOSInfo().GetName());
///     if (system->GetOSInfo().GetVersion() >= TOSVersion::osVista) Print("Vista or later");
///     for (const std::string& port : system->GetComPorts()) Print(port);
///
/// The version is the one that GetVersionExA reports: to a program whose manifest does not name a
/// later Windows as supported, that is 6.2 from Windows 8.1 on.
///
/// Threads: any, since nothing changes once it is gathered.
namespace velox {

// --------------------------------------------------------------------------- versions and editions

/// In the order in which the systems came out, so that values may be compared. A server stands
/// behind the workstation that it shares its version number with.
enum class TOSVersion : uint8_t {
  osUnknown,
  osWin32s,
  os95,
  os98,
  osMe,
  osNT,
  os2000,
  osXP,
  os2003,
  os2003R2,
  osVista,
  osLonghorn,
  osSeven,
  os2008R2,
  osEight,
  os2012,
  osEightOne,
  os2012R2,
  osTen,
  os2016
};

/// The edition; osxUnknown for a system that names none of these.
enum class TOSVersionEx : uint8_t {
  osxUnknown,
  osx95,
  osx95OSR2,
  osx98,
  osx98SE,
  osxMe,
  osNTWorkstation,
  osNTServer,
  osNTServerEnterprise,
  os2000Professional,
  os2000Server,
  os2000ServerAdvanced,
  os2000ServerDatacenter,
  os2000ServerSmallBusiness,
  osXPHome,
  osXPProfessional,
  osXPTabletPC,
  osXPMediaCenter,
  osXPStarter,
  osXPEmbedded,
  os2003Standard,
  os2003Web,
  os2003Enterprise,
  os2003Datacenter,
  os2003ComputeCluster,
  os2003Storage,
  os2003SmallBusiness,
  os2003R2Standard,
  os2003R2Web,
  os2003R2Enterprise,
  os2003R2Datacenter,
  os2003R2ComputeCluster,
  os2003R2Storage,
  os2003R2SmallBusiness,
  osVistaStarter,
  osVistaHomeBasic,
  osVistaHomeBasicN,
  osVistaHomePremium,
  osVistaUltimate,
  osVistaBusiness,
  osVistaBusinessN,
  osVistaEnterprise,
  osLonghornStandardCore,
  osLonghornStandardFull,
  osLonghornEnterpriseCore,
  osLonghornEnterpriseFull,
  osLonghornEnterpriseIA64,
  osLonghornDatacenterCore,
  osLonghornDatacenterFull,
  osLonghornHome,
  osLonghornWeb,
  osLonghornCluster,
  osLonghornForSmallBusiness,
  osLonghornSmallBusiness,
  osLonghornSmallBusinessPremium,
  osLonghornStorageExpress,
  osLonghornStorageStandard,
  osLonghornStorageWorkgroup,
  osLonghornStorageEnterprise,
  os2008R2StandardFull,
  os2008R2DatacenterFull,
  os2008R2EnterpriseFull,
  os2008R2DatacenterCore,
  os2008R2StandardCore,
  os2008R2EnterpriseCore,
  os2008R2EnterpriseIA64,
  os2008R2Web,
  os2008R2WebCore,
  os2008R2HPC,
  os2008R2StorageServer,
  os2008R2StorageExpress,
  os2008R2StorageStandard,
  os2008R2StorageWorkgroup,
  os2008R2StorageEnterprise,
  osSevenUltimate,
  osSevenHomeBasic,
  osSevenHomeBasicN,
  osSevenHomePremium,
  osSevenHomePremiumN,
  osSevenEnterprise,
  osSevenProfessional,
  osSevenProfessionalN,
  osSevenProfessionalWMC,
  osSevenStarter,
  os2012R2Foundation,
  os2012R2Essentials,
  os2012R2Standard,
  os2012R2Datacenter,
  osTenHome,
  osTenHomeChina,
  osTenHomeN,
  osTenHomeSingleLanguage,
  osTenProfessional,
  osTenProfessionalN,
  osTenEducation,
  osTenEducationN,
  osTenEnterprise,
  osTenEnterpriseE,
  osTenEnterpriseEvaluation,
  osTenEnterpriseN,
  osTenEnterpriseNEvaluation,
  osTenEnterprise2015LTSB,
  osTenEnterprise2015LTSBEvaluation,
  osTenEnterprise2015LTSBN,
  osTenEnterprise2015LTSBNEvaluation
};
/// How many editions there are.
inline constexpr int32_t OSVersionExCount = 105;

/// The text to show for a value, such as "Windows 7" or "Windows 7 Home Premium N"; "Unknown" for
/// osUnknown, osxUnknown and numbers that are no value.
VELOX_API const char* OSVersionName(TOSVersion Version) noexcept;
VELOX_API const char* OSVersionExName(TOSVersionEx VersionEx) noexcept;

/// The edition that a product type of the system's GetProductInfo (PRODUCT_… in winnt.h) stands for
/// in a version; osxUnknown when there is none.
VELOX_API TOSVersionEx EditionOfProduct(TOSVersion Version, uint32_t Product) noexcept;

// -------------------------------------------------------------------------------- facts and result

/// What a system tells of itself. What it can't tell stays as it is here.
struct TOSFacts {
  /// As in OSVERSIONINFOEXA: 0 is Win32s, 1 is Windows 95 and its successors, 2 is NT.
  uint32_t PlatformId = 0;
  uint32_t MajorVersion = 0;
  uint32_t MinorVersion = 0;
  uint32_t BuildNumber = 0;
  /// The service pack as text.
  std::string CSDVersion;

  /// Whether the system fills the long record, that is, the next four.
  bool Extended = false;
  uint16_t ServicePackMajor = 0;
  uint16_t ServicePackMinor = 0;
  uint16_t SuiteMask = 0;   ///< VER_SUITE_…
  uint8_t ProductType = 0;  ///< VER_NT_WORKSTATION, VER_NT_DOMAIN_CONTROLLER or VER_NT_SERVER

  /// PROCESSOR_ARCHITECTURE_… of the machine, whatever this process runs as.
  uint16_t ProcessorArchitecture = 0;

  /// The system metrics 89 to 86, of version 5 only.
  bool ServerR2 = false;
  bool Starter = false;
  bool MediaCenter = false;
  bool TabletPC = false;

  /// What GetProductInfo gives; 0 for versions whose edition does not follow from it.
  uint32_t Product = 0;

  /// What the registry holds in place of the long record: the kind of installation, and the
  /// service pack.
  std::optional<std::string> RegistryProductType;
  std::optional<int32_t> RegistryCSDVersion;
};

/// What follows from the facts.
struct TOSDescription {
  /// The numbers of the version and of the build.
  uint32_t MinorVersion = 0;
  uint32_t MajorVersion = 0;
  uint32_t BuildNumber = 0;
  /// The service pack as text; empty when none.
  std::string CSDVersion;
  /// The edition, and the version.
  TOSVersionEx VersionEx = TOSVersionEx::osxUnknown;
  TOSVersion Version = TOSVersion::osUnknown;
  /// The service pack as numbers; 0 when none.
  int32_t ServicePackMajor = 0;
  int32_t ServicePackMinor = 0;
  /// To be shown: the edition, or the version's numbers when that is not known.
  std::string Name = "Unknown";
};

/// Decides from the facts alone, of this machine or any other.
VELOX_API TOSDescription DescribeOS(const TOSFacts& Facts);

// ------------------------------------------------------------------------------------ this machine

/// The running system, as it was when the object was made.
class VELOX_API TOSInfo : public TObject {
 public:
  /// Raises EOSError when the system tells nothing.
  TOSInfo();
  ~TOSInfo() override;

  /// The numbers of the version, such as 1 and 6 for Windows 7, and of the build.
  uint32_t GetMinorVersion() const noexcept { return Description_.MinorVersion; }
  uint32_t GetMajorVersion() const noexcept { return Description_.MajorVersion; }
  uint32_t GetBuildNumber() const noexcept { return Description_.BuildNumber; }
  /// The service pack as text, such as "Service Pack 1"; empty when none.
  const std::string& GetCSDVersion() const noexcept { return Description_.CSDVersion; }
  TOSVersionEx GetVersionEx() const noexcept { return Description_.VersionEx; }
  TOSVersion GetVersion() const noexcept { return Description_.Version; }
  int32_t GetServicePackMajor() const noexcept { return Description_.ServicePackMajor; }
  int32_t GetServicePackMinor() const noexcept { return Description_.ServicePackMinor; }
  /// To be shown: the edition, or "Windows NT 6.3" when that is not known.
  const std::string& GetName() const noexcept { return Description_.Name; }

  /// Fills the system's record of its version. Extended tells whether it is the long one; in the
  /// short one (148 bytes) the fields behind szCSDVersion are 0. Raises EOSError.
  static void GetVersion(OSVERSIONINFOEXA& Info, bool& Extended);
  /// The product type (PRODUCT_… in winnt.h), 0 on systems that know none. Raises EOSError.
  uint32_t GetProductType() const;
  /// The processors and memory of the machine, also for a 32-bit process on a 64-bit system.
  static void GetSystemInfo(SYSTEM_INFO& Info) noexcept;

 private:
  void CheckVersion();

  TOSDescription Description_;
};

/// What is known of the system, gathered when first asked for and not refreshed.
class VELOX_API TSystemInfo : public TObject {
 public:
  /// Raises what TOSInfo raises; the next call then tries anew.
  static TSystemInfo* GetInstance();
  static TObject* SingletonConstruction();

  /// Gathers. Raises what TOSInfo raises. Programs use GetInstance().
  TSystemInfo();
  ~TSystemInfo() override;

  /// The running system.
  const TOSInfo& GetOSInfo() const noexcept { return *OSInfo_; }
  /// The names of the serial ports, such as "COM1", in the order in which the system lists them. An
  /// entry of that list that holds no text is left out.
  const TStrings& GetComPorts() const noexcept { return ComPorts_; }

 private:
  void InitializeComPorts();

  std::unique_ptr<TOSInfo> OSInfo_;
  TStrings ComPorts_;
};

}  // namespace velox
