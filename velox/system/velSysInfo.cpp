#include "velox/system/velSysInfo.hpp"

#include <charconv>
#include <cstring>

#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velModules.hpp"
#include "velox/runtime/velRegistryKey.hpp"
#include "velox/runtime/velSingleton.hpp"
#include "velox/runtime/velSystemLibrary.hpp"

namespace velox {
namespace {

using enum TOSVersion;
using enum TOSVersionEx;

const TSystemFunction<BOOL(WINAPI*)(DWORD, DWORD, DWORD, DWORD, DWORD*)> ProductInfo(
    "kernel32.dll", "GetProductInfo");
const TSystemFunction<void(WINAPI*)(SYSTEM_INFO*)> NativeSystemInfo("kernel32.dll",
                                                                    "GetNativeSystemInfo");
const TSystemFunction<int(WINAPI*)(int)> SystemMetric("user32.dll", "GetSystemMetrics");

TSingletonSlot SystemInfoInstance;

// ------------------------------------------------------------------------------------------- facts

uint32_t QueryProduct(uint32_t Major, uint32_t Minor, uint32_t ServicePackMajor,
                      uint32_t ServicePackMinor) {
  if (!ProductInfo) return 0;
  DWORD product = 0;
  if (!ProductInfo(Major, Minor, ServicePackMajor, ServicePackMinor, &product)) RaiseLastOSError();
  return product;
}

/// Whether the edition follows from the product.
bool NeedsProduct(const TOSFacts& Facts) noexcept;

bool HasMetric(int Index) noexcept { return SystemMetric && SystemMetric(Index) != 0; }

/// What is missing or can't be read ends this early.
void GatherFromRegistry(TOSFacts& Facts) {
  const std::string control = "SYSTEM\\CurrentControlSet\\Control\\";
  try {
    TRegistry registry;
    registry.SetRootKey(HKEY_LOCAL_MACHINE);
    if (!registry.OpenKeyReadOnly("\\" + control + "ProductOptions")) return;
    Facts.RegistryProductType = registry.ReadString("ProductType");
    if (!registry.OpenKeyReadOnly("\\" + control + "Windows")) return;
    Facts.RegistryCSDVersion = registry.ReadInteger("CSDVersion");
  } catch (const ERegistryException&) {
  }
}

TOSFacts GatherOSFacts() {
  OSVERSIONINFOEXA info;
  TOSFacts facts;
  TOSInfo::GetVersion(info, facts.Extended);
  facts.PlatformId = info.dwPlatformId;
  facts.MajorVersion = info.dwMajorVersion;
  facts.MinorVersion = info.dwMinorVersion;
  facts.BuildNumber = info.dwBuildNumber;
  facts.CSDVersion.assign(info.szCSDVersion,
                          ::strnlen(info.szCSDVersion, sizeof info.szCSDVersion));
  facts.ServicePackMajor = info.wServicePackMajor;
  facts.ServicePackMinor = info.wServicePackMinor;
  facts.SuiteMask = info.wSuiteMask;
  facts.ProductType = info.wProductType;

  SYSTEM_INFO system;
  TOSInfo::GetSystemInfo(system);
  facts.ProcessorArchitecture = system.wProcessorArchitecture;

  if (facts.MajorVersion == 5) {  // spares later systems the loading of user32
    facts.ServerR2 = HasMetric(SM_SERVERR2);
    facts.Starter = HasMetric(SM_STARTER);
    facts.MediaCenter = HasMetric(SM_MEDIACENTER);
    facts.TabletPC = HasMetric(SM_TABLETPC);
  }
  if (NeedsProduct(facts)) {
    facts.Product = QueryProduct(facts.MajorVersion, facts.MinorVersion, facts.ServicePackMajor,
                                 facts.ServicePackMinor);
  }
  if (!facts.Extended && facts.PlatformId == VER_PLATFORM_WIN32_NT) GatherFromRegistry(facts);
  return facts;
}

// --------------------------------------------------------------------------------------- decisions

bool IsWorkstation(const TOSFacts& Facts) noexcept {
  return Facts.ProductType == VER_NT_WORKSTATION;
}

bool IsServer(const TOSFacts& Facts) noexcept {
  return Facts.ProductType == VER_NT_SERVER || Facts.ProductType == VER_NT_DOMAIN_CONTROLLER;
}

/// Whether all of these suites are installed.
bool HasSuites(const TOSFacts& Facts, uint32_t Suites) noexcept {
  return (Facts.SuiteMask & Suites) == Suites;
}

constexpr uint32_t SmallBusinessSuites =
    VER_SUITE_SMALLBUSINESS | VER_SUITE_SMALLBUSINESS_RESTRICTED;

TOSVersion DecideVersionNT(const TOSFacts& Facts) noexcept {
  const bool workstation = IsWorkstation(Facts);
  const auto is = [&](uint32_t Major, uint32_t Minor) {
    return Facts.MajorVersion == Major && Facts.MinorVersion == Minor;
  };
  if (is(10, 0)) return workstation ? osTen : os2016;
  if (is(6, 3)) return workstation ? osEightOne : os2012R2;
  if (is(6, 2)) return workstation ? osEight : os2012;
  if (is(6, 1)) return workstation ? osSeven : os2008R2;
  if (is(6, 0)) return workstation ? osVista : osLonghorn;
  if (is(5, 2)) {
    if (Facts.ServerR2) return os2003R2;
    const bool x64 = Facts.ProcessorArchitecture == PROCESSOR_ARCHITECTURE_AMD64;
    return workstation && x64 ? osXP : os2003;
  }
  if (is(5, 1)) return osXP;
  if (is(5, 0)) return os2000;
  return Facts.MajorVersion < 5 ? osNT : osUnknown;
}

bool NeedsProduct(const TOSFacts& Facts) noexcept {
  if (!Facts.Extended || Facts.PlatformId != VER_PLATFORM_WIN32_NT) return false;
  switch (DecideVersionNT(Facts)) {
    case osLonghorn:
    case os2008R2:
    case os2012R2:
      return IsServer(Facts);
    case osVista:
    case osSeven:
    case osTen:
      return true;
    default:
      return false;
  }
}

TOSVersionEx DecideServer2000(const TOSFacts& Facts) noexcept {
  if (HasSuites(Facts, SmallBusinessSuites)) return os2000ServerSmallBusiness;
  if (HasSuites(Facts, VER_SUITE_DATACENTER)) return os2000ServerDatacenter;
  if (HasSuites(Facts, VER_SUITE_ENTERPRISE)) return os2000ServerAdvanced;
  return os2000Server;
}

TOSVersionEx DecideServer2003(const TOSFacts& Facts, bool R2) noexcept {
  if (HasSuites(Facts, SmallBusinessSuites))
    return R2 ? os2003R2SmallBusiness : os2003SmallBusiness;
  if (HasSuites(Facts, VER_SUITE_STORAGE_SERVER)) return R2 ? os2003R2Storage : os2003Storage;
  if (HasSuites(Facts, VER_SUITE_COMPUTE_SERVER))
    return R2 ? os2003R2ComputeCluster : os2003ComputeCluster;
  if (HasSuites(Facts, VER_SUITE_DATACENTER)) return R2 ? os2003R2Datacenter : os2003Datacenter;
  if (HasSuites(Facts, VER_SUITE_ENTERPRISE)) return R2 ? os2003R2Enterprise : os2003Enterprise;
  if (HasSuites(Facts, VER_SUITE_BLADE)) return R2 ? os2003R2Web : os2003Web;
  return R2 ? os2003R2Standard : os2003Standard;
}

TOSVersionEx DecideXP(const TOSFacts& Facts) noexcept {
  if (Facts.Starter) return osXPStarter;
  if (Facts.MediaCenter) return osXPMediaCenter;
  if (Facts.TabletPC) return osXPTabletPC;
  if (HasSuites(Facts, VER_SUITE_EMBEDDEDNT)) return osXPEmbedded;
  if (HasSuites(Facts, VER_SUITE_PERSONAL)) return osXPHome;
  return osXPProfessional;
}

TOSVersionEx DecideServer(const TOSFacts& Facts, TOSVersion Version) noexcept {
  switch (Version) {
    case osNT:
      return HasSuites(Facts, VER_SUITE_ENTERPRISE) ? osNTServerEnterprise : osNTServer;
    case os2000:
      return DecideServer2000(Facts);
    case os2003:
    case os2003R2:
      return DecideServer2003(Facts, Version == os2003R2);
    case osLonghorn:
    case os2008R2:
    case os2012R2:
      return EditionOfProduct(Version, Facts.Product);
    default:
      return osxUnknown;
  }
}

TOSVersionEx DecideWorkstation(const TOSFacts& Facts, TOSVersion Version) noexcept {
  switch (Version) {
    case osNT:
      return osNTWorkstation;
    case os2000:
      return os2000Professional;
    case osXP:
      return DecideXP(Facts);
    case osVista:
    case osSeven:
    case osTen:
      return EditionOfProduct(Version, Facts.Product);
    default:
      return osxUnknown;
  }
}

/// The hexadecimal digits of a number, read as decimal ones: 0x300 gives 300, and one with a digit
/// above 9 gives 0.
int32_t HexadecimalAsDecimal(uint32_t Value) {
  const std::string digits = Format("%02X", Value);
  const char* const end = digits.data() + digits.size();
  int32_t result = 0;
  return std::from_chars(digits.data(), end, result).ptr == end ? result : 0;
}

/// For systems that fill the short record only. Each step is taken when the one before succeeded.
void DescribeFromRegistry(const TOSFacts& Facts, TOSDescription& Result) {
  if (!Facts.RegistryProductType) return;
  const auto is = [&](const char* Text) {
    return ::_stricmp(Facts.RegistryProductType->c_str(), Text) == 0;
  };
  if (is("WINNT")) Result.VersionEx = osNTWorkstation;
  if (is("LANMANNT")) Result.VersionEx = osNTServer;
  if (is("SERVERNT")) Result.VersionEx = osNTServerEnterprise;

  if (!Facts.RegistryCSDVersion) return;
  const auto servicePack = static_cast<uint32_t>(*Facts.RegistryCSDVersion);
  Result.ServicePackMajor = HexadecimalAsDecimal(servicePack >> 16);
  // The whole number on purpose: a service pack stored as 0x300 is 0.300.
  Result.ServicePackMinor = HexadecimalAsDecimal(servicePack);
}

void DescribeNT(const TOSFacts& Facts, TOSDescription& Result) {
  Result.Name = Format("Windows NT %d.%d", Facts.MajorVersion, Facts.MinorVersion);
  Result.Version = DecideVersionNT(Facts);
  if (!Facts.Extended) {
    DescribeFromRegistry(Facts, Result);
    return;
  }
  Result.ServicePackMajor = Facts.ServicePackMajor;
  Result.ServicePackMinor = Facts.ServicePackMinor;
  if (IsServer(Facts)) Result.VersionEx = DecideServer(Facts, Result.Version);
  if (IsWorkstation(Facts)) Result.VersionEx = DecideWorkstation(Facts, Result.Version);
}

void Describe9x(const TOSFacts& Facts, TOSDescription& Result) {
  if (Facts.MajorVersion != 4) return;
  Result.Name = Format("Windows %d.%d", Facts.MajorVersion, Facts.MinorVersion);
  switch (Facts.MinorVersion) {
    case 0: {
      const bool second = Facts.CSDVersion == "B" || Facts.CSDVersion == "C";
      Result.Version = os95;
      Result.VersionEx = second ? osx95OSR2 : osx95;
      if (second) Result.CSDVersion.clear();
      break;
    }
    case 10: {
      const bool second = Facts.CSDVersion == "A";
      Result.Version = os98;
      Result.VersionEx = second ? osx98SE : osx98;
      if (second) Result.CSDVersion.clear();
      break;
    }
    case 90:
      Result.Version = osMe;
      Result.VersionEx = osxMe;
      break;
    default:
      break;
  }
}

}  // namespace

void modules::FinalizeSysInfo() noexcept { SingletonDestroy(SystemInfoInstance); }

TOSDescription DescribeOS(const TOSFacts& Facts) {
  TOSDescription result;
  result.MinorVersion = Facts.MinorVersion;
  result.MajorVersion = Facts.MajorVersion;
  result.BuildNumber = Facts.BuildNumber;
  result.CSDVersion = Facts.CSDVersion;
  switch (Facts.PlatformId) {
    case VER_PLATFORM_WIN32_NT:
      DescribeNT(Facts, result);
      break;
    case VER_PLATFORM_WIN32_WINDOWS:
      Describe9x(Facts, result);
      break;
    case VER_PLATFORM_WIN32s:
      result.Version = osWin32s;
      break;
    default:
      break;
  }
  if (result.VersionEx != osxUnknown) result.Name = OSVersionExName(result.VersionEx);
  return result;
}

// ------------------------------------------------------------------------------------ this machine

TOSInfo::TOSInfo() { CheckVersion(); }

TOSInfo::~TOSInfo() = default;

void TOSInfo::CheckVersion() { Description_ = DescribeOS(GatherOSFacts()); }

void TOSInfo::GetVersion(OSVERSIONINFOEXA& Info, bool& Extended) {
  static_assert(sizeof(OSVERSIONINFOEXA) == 156 && sizeof(OSVERSIONINFOA) == 148);
  auto* const record = reinterpret_cast<OSVERSIONINFOA*>(&Info);
  Info = {};
  Info.dwOSVersionInfoSize = sizeof(OSVERSIONINFOEXA);
  Extended = ::GetVersionExA(record) != FALSE;
  if (Extended) return;
  Info.dwOSVersionInfoSize = sizeof(OSVERSIONINFOA);
  if (!::GetVersionExA(record)) RaiseLastOSError();
}

uint32_t TOSInfo::GetProductType() const {
  return QueryProduct(Description_.MajorVersion, Description_.MinorVersion,
                      static_cast<uint32_t>(Description_.ServicePackMajor),
                      static_cast<uint32_t>(Description_.ServicePackMinor));
}

void TOSInfo::GetSystemInfo(SYSTEM_INFO& Info) noexcept {
  if (NativeSystemInfo) {
    NativeSystemInfo(&Info);
  } else {
    ::GetSystemInfo(&Info);
  }
}

TSystemInfo* TSystemInfo::GetInstance() {
  return SingletonInstance<TSystemInfo>(SystemInfoInstance);
}
TObject* TSystemInfo::SingletonConstruction() { return new TSystemInfo; }

TSystemInfo::TSystemInfo() : OSInfo_(std::make_unique<TOSInfo>()) { InitializeComPorts(); }

TSystemInfo::~TSystemInfo() = default;

void TSystemInfo::InitializeComPorts() {
  TRegistry registry;
  registry.SetRootKey(HKEY_LOCAL_MACHINE);
  if (!registry.OpenKeyReadOnly("Hardware\\DeviceMap\\SerialComm")) return;
  for (const std::string& device : registry.GetValueNames()) {
    try {
      ComPorts_.push_back(registry.ReadString(device));
    } catch (const ERegistryException&) {
      // No string, or unplugged between the two.
    }
  }
}

}  // namespace velox
