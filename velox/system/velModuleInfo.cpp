#include "velox/system/velModuleInfo.hpp"

#include <cstring>
#include <iterator>
#include <span>
#include <vector>

#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velModules.hpp"
#include "velox/runtime/velSingleton.hpp"
#include "velox/runtime/velSystemLibrary.hpp"

namespace velox {
namespace {

const TSystemFunction<decltype(&::GetFileVersionInfoSizeA)> GetVersionBlockSize(
    "version.dll", "GetFileVersionInfoSizeA");
const TSystemFunction<decltype(&::GetFileVersionInfoA)> GetVersionBlock("version.dll",
                                                                        "GetFileVersionInfoA");
const TSystemFunction<decltype(&::VerQueryValueA)> QueryVersionValue("version.dll",
                                                                     "VerQueryValueA");

TSingletonSlot ModuleInfoInstance;
TSingletonSlot ProcessInfoInstance;

constexpr const char* StringNames[VersionInfoStringNameCount] = {
    "Comments",     "CompanyName",    "FileDescription", "FileVersion",
    "InternalName", "LegalCopyright", "LegalTrademarks", "OriginalFilename",
    "PrivateBuild", "ProductName",    "ProductVersion",  "SpecialBuild"};

// What a resource holds for each value of the enumeration (VS_FF_…, VOS_… and VFT_… in winver.h).
constexpr uint32_t FlagBits[] = {0x01, 0x04, 0x02, 0x08, 0x20};
constexpr uint32_t OSNumbers[] = {0, 0x10000, 0x40000, 1, 4, 0x10001, 0x10004, 0x40004};
constexpr uint32_t TypeNumbers[] = {0, 1, 2, 3, 4, 5, 7};

/// The enumeration value of a number, the first (unknown) for one that is not in the table.
template <class E>
E FromNumber(std::span<const uint32_t> Numbers, uint32_t Number) noexcept {
  for (size_t i = 0; i < Numbers.size(); ++i) {
    if (Numbers[i] == Number) return static_cast<E>(i);
  }
  return E{};
}

TVersionInfoFileFlags FlagsFromBits(uint32_t Bits) noexcept {
  TVersionInfoFileFlags flags;
  for (size_t i = 0; i < std::size(FlagBits); ++i) {
    if ((Bits & FlagBits[i]) != 0) flags.Include(static_cast<TVersionInfoFileFlag>(i));
  }
  return flags;
}

/// A value inside a version block: bytes for binary values, characters for strings. Empty when it
/// is missing.
std::span<const char> FindValue(const void* Block, const char* Path) {
  void* value = nullptr;
  UINT size = 0;
  if (!QueryVersionValue || !QueryVersionValue(Block, Path, &value, &size) || value == nullptr)
    return {};
  return {static_cast<const char*>(value), size};
}

struct TTimings {
  TDateTime CreationTime;
  int64_t KernelTime;
  int64_t UserTime;
};

int64_t ToInt64(const FILETIME& Time) noexcept {
  return static_cast<int64_t>(uint64_t{Time.dwHighDateTime} << 32 | Time.dwLowDateTime);
}

/// Asks GetThreadTimes or GetProcessTimes.
TTimings QueryTimings(BOOL(WINAPI* Query)(HANDLE, FILETIME*, FILETIME*, FILETIME*, FILETIME*),
                      HANDLE Handle) {
  FILETIME creation, exit, kernel, user;
  if (!Query(Handle, &creation, &exit, &kernel, &user)) RaiseLastOSError();
  return {FileTimeToDateTime(creation), ToInt64(kernel), ToInt64(user)};
}

/// Gives an object to an array that owns its items.
template <class T>
void AddOwned(TObjectArray& Array, std::unique_ptr<T> Object) {
  if (Array.Add(Object.get())) Object.release();
}

/// Null when the thread has ended meanwhile: its identifier then means nothing any more.
std::unique_ptr<TThreadInfo> MakeThreadInfo(DWORD ThreadId) {
  try {
    return std::make_unique<TThreadInfo>(ThreadId);
  } catch (const EOSError& e) {
    if (e.ErrorCode == ERROR_INVALID_PARAMETER) return nullptr;
    throw;
  }
}

}  // namespace

void modules::FinalizeModuleInfo() noexcept {
  SingletonDestroy(ProcessInfoInstance);
  SingletonDestroy(ModuleInfoInstance);
}

// ------------------------------------------------------------------------------- version resources

const char* VersionInfoStringName(TVersionInfoStringNameId Id) noexcept {
  const auto index = static_cast<size_t>(Id);
  return index < std::size(StringNames) ? StringNames[index] : "";
}

TVersionInfoStringTable::TVersionInfoStringTable(uint16_t Language, uint16_t CodePage,
                                                 const void* Block)
    : Language_(Language), CodePage_(CodePage) {
  for (size_t i = 0; i < StringValues_.size(); ++i) {
    const std::string path =
        Format("\\StringFileInfo\\%.4x%.4x\\%s", Language, CodePage, StringNames[i]);
    const std::span<const char> value = FindValue(Block, path.c_str());
    StringValues_[i].assign(value.data(), ::strnlen(value.data(), value.size()));
  }
}

const std::string& TVersionInfoStringTable::GetStringValues(TVersionInfoStringNameId Id) const {
  const auto index = static_cast<size_t>(Id);
  if (index >= StringValues_.size()) throw Exception(messages::seInvalidIndex);
  return StringValues_[index];
}

TModuleVersionInfo::TModuleVersionInfo(const void* Block)
    : StringTables_(TClass::Of<TVersionInfoStringTable>()) {
  VS_FIXEDFILEINFO root;
  const std::span<const char> value = FindValue(Block, "\\");
  if (value.size() < sizeof root) throw Exception(messages::seVersionRootMissing);
  std::memcpy(&root, value.data(), sizeof root);
  AssignFileVersion(root.dwFileVersionMS, root.dwFileVersionLS, FileVersion_);
  AssignFileVersion(root.dwProductVersionMS, root.dwProductVersionLS, ProductVersion_);
  FileFlags_ = FlagsFromBits(root.dwFileFlags & root.dwFileFlagsMask);
  FileOS_ = FromNumber<TVersionInfoFileOS>(OSNumbers, root.dwFileOS);
  FileType_ = FromNumber<TVersionInfoFileType>(TypeNumbers, root.dwFileType);
  StringTables_.SetSharedObjects(false);
  ReadStringTables(Block);
}

TModuleVersionInfo::~TModuleVersionInfo() = default;

void TModuleVersionInfo::ReadStringTables(const void* Block) {
  struct TTranslation {
    uint16_t Language, CodePage;
  } translation;
  std::span<const char> list = FindValue(Block, "\\VarFileInfo\\Translation");
  for (; list.size() >= sizeof translation; list = list.subspan(sizeof translation)) {
    std::memcpy(&translation, list.data(), sizeof translation);
    AddOwned(StringTables_, std::make_unique<TVersionInfoStringTable>(translation.Language,
                                                                      translation.CodePage, Block));
  }
}

const TVersionInfoStringTable& TModuleVersionInfo::GetStringTable(int32_t Index) const {
  return static_cast<const TVersionInfoStringTable&>(*StringTables_.GetItems(Index));
}

void TModuleVersionInfo::AssignFileVersion(uint32_t MS, uint32_t LS,
                                           TFileVersion& Version) noexcept {
  Version = {HIWORD(MS), LOWORD(MS), HIWORD(LS), LOWORD(LS)};
}

int32_t TModuleVersionInfo::CompareVersions(const TFileVersion& A, const TFileVersion& B) noexcept {
  if (A.Major != B.Major) return A.Major - B.Major;
  if (A.Minor != B.Minor) return A.Minor - B.Minor;
  return A.Release - B.Release;
}

std::string TModuleVersionInfo::VersionToString(const TFileVersion& Version,
                                                TFileVersionReleaseConversionOption ReleaseOption,
                                                TFileVersionBuildConversionOption BuildOption) {
  using enum TFileVersionReleaseConversionOption;
  using enum TFileVersionBuildConversionOption;
  std::string text = Format("%d.%d", Version.Major, Version.Minor);
  if (ReleaseOption == fvrcoInclude ||
      (ReleaseOption == fvrcoIncludeIfNotZero && Version.Release > 0)) {
    text += Format(".%d", Version.Release);
  }
  const bool always = BuildOption == fvbcoInclude || BuildOption == fvbcoIncludeAsBuildString;
  if (BuildOption == fvbcoDoNotInclude || (Version.Build == 0 && !always)) return text;
  const bool asText =
      BuildOption == fvbcoIncludeAsBuildString || BuildOption == fvbcoIncludeIfNotZeroAsBuildString;
  return text + Format(asText ? " (Build %d)" : ".%d", Version.Build);
}

TModuleInfo::TModuleInfo(HMODULE Handle) : FileName_(32768, '\0') {
  const DWORD length =
      ::GetModuleFileNameA(Handle, FileName_.data(), static_cast<DWORD>(FileName_.size()));
  if (length == 0) RaiseLastOSError();
  FileName_.resize(length);
  FileName_.shrink_to_fit();
  RetrieveFileVersionInfo();
}

TModuleInfo::TModuleInfo(const std::string& FileName) : FileName_(FileName) {
  if (FileName.empty()) throw EAssertionFailed(messages::seFileNameIsEmpty);
  RetrieveFileVersionInfo();
}

TModuleInfo::~TModuleInfo() = default;

TModuleInfo* TModuleInfo::GetInstance() {
  return SingletonInstance<TModuleInfo>(ModuleInfoInstance);
}
TObject* TModuleInfo::SingletonConstruction() { return new TModuleInfo(HMODULE{nullptr}); }

void TModuleInfo::RetrieveFileVersionInfo() {
  DWORD ignored = 0;
  const DWORD size = GetVersionBlockSize ? GetVersionBlockSize(FileName_.c_str(), &ignored) : 0;
  if (size == 0) return;
  std::vector<uint8_t> block(size);
  if (!GetVersionBlock(FileName_.c_str(), 0, size, block.data())) RaiseLastOSError();
  VersionInfo_ = std::make_unique<TModuleVersionInfo>(block.data());
}

std::string TModuleInfo::ModuleVersion() const {
  if (VersionInfo_ == nullptr) return {};
  return TModuleVersionInfo::VersionToString(
      VersionInfo_->GetFileVersion(), TFileVersionReleaseConversionOption::fvrcoIncludeIfNotZero,
      TFileVersionBuildConversionOption::fvbcoIncludeIfNotZeroAsBuildString);
}

// --------------------------------------------------------------------------- processes and threads

TThreadInfo::TThreadInfo(DWORD ThreadId)
    : ThreadId_(ThreadId), CallerThreadId_(::GetCurrentThreadId()) {
  RetrieveThreadHandle();
  Refresh();
}

TThreadInfo::~TThreadInfo() = default;

void TThreadInfo::RetrieveThreadHandle() {
  if (ThreadId_ == CallerThreadId_) return;
  Opened_.Reset(::OpenThread(THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT | THREAD_QUERY_INFORMATION,
                             FALSE, ThreadId_));
  if (!Opened_) RaiseLastOSError();
}

void TThreadInfo::Refresh() {
  Priority_ = ::GetThreadPriority(GetHandle());
  Name_ = TThreadFactory::GetInstance()->GetThreadName(ThreadId_);
  RetrieveThreadTimings();
}

void TThreadInfo::RetrieveThreadTimings() {
  const TTimings timings = QueryTimings(&::GetThreadTimes, GetHandle());
  CreationTime_ = timings.CreationTime;
  KernelTime_ = timings.KernelTime;
  UserTime_ = timings.UserTime;
}

TProcessInfo::TProcessInfo(DWORD ProcessId)
    : ProcessId_(ProcessId),
      CallerProcessId_(::GetCurrentProcessId()),
      Threads_(TClass::Of<TThreadInfo>()) {
  Threads_.SetSharedObjects(false);
  RetrieveProcessHandle();
  Refresh();
}

TProcessInfo::~TProcessInfo() = default;

TProcessInfo* TProcessInfo::GetInstance() {
  return SingletonInstance<TProcessInfo>(ProcessInfoInstance);
}
TObject* TProcessInfo::SingletonConstruction() { return new TProcessInfo(::GetCurrentProcessId()); }

void TProcessInfo::RetrieveProcessHandle() {
  if (ProcessId_ == CallerProcessId_) return;
  Opened_.Reset(::OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, ProcessId_));
  if (!Opened_) RaiseLastOSError();
}

void TProcessInfo::Refresh() {
  RetrieveProcessTimings();
  RetrieveThreads();
}

void TProcessInfo::RetrieveProcessTimings() {
  const TTimings timings = QueryTimings(&::GetProcessTimes, GetHandle());
  CreationTime_ = timings.CreationTime;
  KernelTime_ = timings.KernelTime;
  UserTime_ = timings.UserTime;
}

void TProcessInfo::RetrieveThreads() {
  std::vector<std::unique_ptr<TThreadInfo>> found;
  const THandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  if (!snapshot) RaiseLastOSError();
  THREADENTRY32 entry{};
  static_assert(sizeof entry == 28);
  entry.dwSize = sizeof entry;
  if (!::Thread32First(snapshot.Get(), &entry)) RaiseLastOSError();
  do {
    if (entry.th32OwnerProcessID != ProcessId_) continue;
    if (auto thread = MakeThreadInfo(entry.th32ThreadID)) found.push_back(std::move(thread));
  } while (::Thread32Next(snapshot.Get(), &entry));
  Threads_.SetAllocCount(static_cast<int32_t>(found.size()));
  Threads_.Clear();  // from here on nothing fails
  for (auto& thread : found) AddOwned(Threads_, std::move(thread));
}

const TThreadInfo& TProcessInfo::GetThreadInfo(int32_t Index) const {
  return static_cast<const TThreadInfo&>(*Threads_.GetItems(Index));
}

}  // namespace velox
