#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "velox/containers/velObjArray.hpp"
#include "velox/runtime/velCompiler.hpp"
#include "velox/runtime/velDateTime.hpp"
#include "velox/runtime/velFlagSet.hpp"
#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velWindows.hpp"

/// What the system tells of processes with their threads, and of module files with their version
/// resources.
///
///     const TProcessInfo process(::GetCurrentProcessId());
///     for (int32_t i = 0; i < process.GetThreadInfoCount(); ++i)
///       Print(process.GetThreadInfo(i).GetName());
///     Print(TModuleInfo::GetInstance()->ModuleVersion());
///
/// Threads: an object that is not being refreshed may be read by any thread (but see
/// TThreadInfo::GetHandle).
namespace velox {

// ------------------------------------------------------------------------------- version resources

/// A version as version resources keep it: 1.2.3.4.
struct TFileVersion {
  uint16_t Major = 0;    ///< the 1
  uint16_t Minor = 0;    ///< the 2
  uint16_t Release = 0;  ///< the 3
  uint16_t Build = 0;    ///< the 4
};

/// Whether VersionToString writes the release number.
enum class TFileVersionReleaseConversionOption : uint8_t {
  fvrcoDoNotInclude,      ///< never
  fvrcoIncludeIfNotZero,  ///< unless it is 0
  fvrcoInclude            ///< always
};

/// Whether and how VersionToString writes the build number: as one more number, or as " (Build N)".
enum class TFileVersionBuildConversionOption : uint8_t {
  fvbcoDoNotInclude,                   ///< never
  fvbcoIncludeIfNotZero,               ///< as a number, unless it is 0
  fvbcoInclude,                        ///< always, as a number
  fvbcoIncludeIfNotZeroAsBuildString,  ///< as words, unless it is 0
  fvbcoIncludeAsBuildString            ///< always, as words
};

/// The strings that a version resource may hold for each of its languages.
enum class TVersionInfoStringNameId : uint8_t {
  visnComments,
  visnCompanyName,
  visnFileDescription,
  visnFileVersion,
  visnInternalName,
  visnLegalCopyright,
  visnLegalTrademarks,
  visnOriginalFilename,
  visnPrivateBuild,
  visnProductName,
  visnProductVersion,
  visnSpecialBuild
};
/// How many there are.
inline constexpr int32_t VersionInfoStringNameCount = 12;

/// The name under which a resource keeps a string: "Comments", "CompanyName", …
VELOX_API const char* VersionInfoStringName(TVersionInfoStringNameId Id) noexcept;

/// What a file says about the way it was built.
enum class TVersionInfoFileFlag : uint8_t {
  viffDebug,         ///< with debugging features
  viffPatched,       ///< changed since its version was published
  viffPrerelease,    ///< not published yet
  viffPrivateBuild,  ///< not built by the usual procedure; see visnPrivateBuild
  viffSpecialBuild   ///< a variation of its version; see visnSpecialBuild
};
/// A set of them.
using TVersionInfoFileFlags = TFlagSet<TVersionInfoFileFlag>;

/// The system that a file was made for.
enum class TVersionInfoFileOS : uint8_t {
  vifoUnknown,
  vifoDos,
  vifoNT,
  vifoWin16,
  vifoWin32,
  vifoDosWin16,
  vifoDosWin32,
  vifoNTWin32
};

/// What kind of file it is.
enum class TVersionInfoFileType : uint8_t {
  viftUnknown,
  viftApplication,
  viftDll,
  viftDriver,
  viftFont,
  viftVxd,
  viftStaticLib
};

/// The strings of one language of a version resource.
class VELOX_API TVersionInfoStringTable : public TObject {
 public:
  /// Reads the strings of a language and code page from a block (see TModuleVersionInfo). One that
  /// is missing there is empty here.
  TVersionInfoStringTable(uint16_t Language, uint16_t CodePage, const void* Block);

  /// The system's language identifier, such as 0x0409 for English (United States).
  uint16_t GetLanguage() const noexcept { return Language_; }
  /// The code page in which the file keeps the strings, such as 1200 for UTF-16. Here they are in
  /// the system's.
  uint16_t GetCodePage() const noexcept { return CodePage_; }
  const std::string& GetStringValues(TVersionInfoStringNameId Id) const;

 private:
  uint16_t Language_;
  uint16_t CodePage_;
  std::array<std::string, VersionInfoStringNameCount> StringValues_;
};

/// A decoded version resource.
class VELOX_API TModuleVersionInfo : public TObject {
 public:
  /// Decodes a block as GetFileVersionInfoA fills it; the block is not needed afterwards. Raises
  /// Exception "Root block of version resource does not exist".
  explicit TModuleVersionInfo(const void* Block);
  ~TModuleVersionInfo() override;

  /// The version of the file, and of the product that it is part of.
  const TFileVersion& GetFileVersion() const noexcept { return FileVersion_; }
  const TFileVersion& GetProductVersion() const noexcept { return ProductVersion_; }
  /// The flags that are set, of those that the resource declares valid.
  TVersionInfoFileFlags GetFileFlags() const noexcept { return FileFlags_; }
  TVersionInfoFileOS GetFileOS() const noexcept { return FileOS_; }
  TVersionInfoFileType GetFileType() const noexcept { return FileType_; }

  /// The string tables, in the order of the resource's list of translations. Raises Exception
  /// "Invalid index".
  int32_t GetStringTableCount() const noexcept { return StringTables_.GetCount(); }
  const TVersionInfoStringTable& GetStringTable(int32_t Index) const;

  /// A version from the two halves in which a resource keeps it.
  static void AssignFileVersion(uint32_t MS, uint32_t LS, TFileVersion& Version) noexcept;

  /// Negative, 0 or positive as A is older than, the same as or newer than B: the difference of the
  /// first number that differs. The build number does not count.
  static int32_t CompareVersions(const TFileVersion& A, const TFileVersion& B) noexcept;

  /// "1.2" and, as the options say, ".3" and ".4" or " (Build 4)". Each option counts by itself:
  /// without the release, the build follows the minor number.
  static std::string VersionToString(const TFileVersion& Version,
                                     TFileVersionReleaseConversionOption ReleaseOption,
                                     TFileVersionBuildConversionOption BuildOption);

 private:
  void ReadStringTables(const void* Block);

  TFileVersion FileVersion_;
  TFileVersion ProductVersion_;
  TVersionInfoFileFlags FileFlags_;
  TVersionInfoFileOS FileOS_;
  TVersionInfoFileType FileType_;
  TObjectArray StringTables_;  // owns them
};

/// A program or library file and its version resource, which is read once, by the constructor.
class VELOX_API TModuleInfo : public TObject {
 public:
  /// The file of a module that this process has loaded; null is the program itself. Raises
  /// EOSError, and for the version resource what the other one raises.
  explicit TModuleInfo(HMODULE Handle);
  /// Any file. Raises EAssertionFailed for an empty name. A file that is not there or has no
  /// version resource is no error: it has no version information. One that can't be read raises
  /// EOSError or Exception "Root block of version resource does not exist".
  explicit TModuleInfo(const std::string& FileName);
  ~TModuleInfo() override;

  /// The program of this process.
  static TModuleInfo* GetInstance();
  static TObject* SingletonConstruction();

  /// As given to the constructor, or as the system tells it of a module.
  const std::string& GetFileName() const noexcept { return FileName_; }
  /// Null when the file has no version resource. Owned by this object.
  const TModuleVersionInfo* GetVersionInfo() const noexcept { return VersionInfo_.get(); }

  /// The file's version such as "3.1.2 (Build 42)"; a release or build of 0 is left out. Empty
  /// without version information.
  std::string ModuleVersion() const;

 private:
  void RetrieveFileVersionInfo();

  std::string FileName_;
  std::unique_ptr<TModuleVersionInfo> VersionInfo_;
};

// --------------------------------------------------------------------------- processes and threads

/// A thread of any process, as it was when the object was made or last refreshed.
///
/// An object that a thread makes of itself works through the system's handle for "the calling
/// thread": only that thread may refresh it or use its handle.
class VELOX_API TThreadInfo : public TObject {
 public:
  /// Raises EOSError when there is no such thread or it may not be opened.
  explicit TThreadInfo(DWORD ThreadId);
  ~TThreadInfo() override;

  /// Gathers everything anew. Raises EOSError.
  void Refresh();

  /// As given to the constructor.
  DWORD GetThreadId() const noexcept { return ThreadId_; }
  /// The thread that made this object.
  DWORD GetCallerThreadId() const noexcept { return CallerThreadId_; }
  /// The thread's handle, with the rights to suspend and resume it, and to query it and its
  /// context. Belongs to this object. When the thread has made the object itself, it is the
  /// system's handle for "the calling thread", and so means another thread to each thread that
  /// reads it.
  HANDLE GetHandle() const noexcept { return Opened_ ? Opened_.Get() : ::GetCurrentThread(); }
  /// The name that the thread has in the thread factory of this process, empty when none.
  const std::string& GetName() const noexcept { return Name_; }
  /// The system's relative priority: 0 is normal, -2 lowest, 2 highest.
  int32_t GetPriority() const noexcept { return Priority_; }
  /// Local time.
  TDateTime GetCreationTime() const noexcept { return CreationTime_; }
  /// Time spent in the system and in the program, in units of 100 ns.
  int64_t GetKernelTime() const noexcept { return KernelTime_; }
  int64_t GetUserTime() const noexcept { return UserTime_; }

 private:
  void RetrieveThreadHandle();
  void RetrieveThreadTimings();

  const DWORD ThreadId_;
  const DWORD CallerThreadId_;
  THandle Opened_;  // none for the thread that made the object
  std::string Name_;
  int32_t Priority_ = 0;
  TDateTime CreationTime_ = 0;
  int64_t KernelTime_ = 0;
  int64_t UserTime_ = 0;
};

/// A process and its threads, as they were when the object was made or last refreshed.
class VELOX_API TProcessInfo : public TObject {
 public:
  /// Raises EOSError when there is no such process, or it or one of its threads may not be opened.
  explicit TProcessInfo(DWORD ProcessId);
  ~TProcessInfo() override;

  /// This process, as it was when first asked for; Refresh() is the caller's affair, and so is
  /// keeping other threads from it meanwhile.
  static TProcessInfo* GetInstance();
  static TObject* SingletonConstruction();

  /// Gathers everything anew, with new objects for the threads. Raises EOSError; the threads are
  /// then those from before.
  void Refresh();

  /// As given to the constructor.
  DWORD GetProcessId() const noexcept { return ProcessId_; }
  /// The process that made this object, that is, this one.
  DWORD GetCallerProcessId() const noexcept { return CallerProcessId_; }
  /// The process's handle, with the right to query it. Belongs to this object.
  HANDLE GetHandle() const noexcept { return Opened_ ? Opened_.Get() : ::GetCurrentProcess(); }
  /// Local time.
  TDateTime GetCreationTime() const noexcept { return CreationTime_; }
  /// Time spent in the system and in the program, in units of 100 ns.
  int64_t GetKernelTime() const noexcept { return KernelTime_; }
  int64_t GetUserTime() const noexcept { return UserTime_; }

  /// The threads in the system's order; the objects live until the next refresh. A thread that ends
  /// while they are being gathered is left out. Raises Exception "Invalid index".
  int32_t GetThreadInfoCount() const noexcept { return Threads_.GetCount(); }
  const TThreadInfo& GetThreadInfo(int32_t Index) const;

 private:
  void RetrieveProcessHandle();
  void RetrieveProcessTimings();
  void RetrieveThreads();

  const DWORD ProcessId_;
  const DWORD CallerProcessId_;
  THandle Opened_;  // none for this process
  TDateTime CreationTime_ = 0;
  int64_t KernelTime_ = 0;
  int64_t UserTime_ = 0;
  TObjectArray Threads_;  // owns them
};

}  // namespace velox
