// Shows what is known of the system, of this very process and its threads, and of the version
// resource of a file:
//
//     velinfo [FILE]

#include <cstdio>
#include <string>

#include "velox/foundation/velStringUtils.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/system/velModuleInfo.hpp"
#include "velox/system/velSysInfo.hpp"

namespace {

using namespace velox;

/// A thread to be seen in the list; it ends with this object.
class TWorker {
 public:
  TWorker() : Stop_(::CreateEventA(nullptr, TRUE, FALSE, nullptr)) {
    if (!Stop_) RaiseLastOSError();
    DWORD id = 0;
    Thread_.Reset(TThreadFactory::GetInstance()->CreateThread(
        "Worker", TThreadExecutionRoutine::Bind<&TWorker::Work>(this), nullptr, id));
    if (!Thread_) RaiseLastOSError();
  }
  ~TWorker() {
    ::SetEvent(Stop_.Get());
    const HANDLE thread = Thread_.Get();
    WaitAlertableQuietly({&thread, 1});
  }

 private:
  void Work(void*) { WaitForSingleObjectAlertable(Stop_.Get(), "velinfo worker"); }

  const THandle Stop_;
  THandle Thread_;
};

const char* ArchitectureName(uint16_t Architecture) {
  switch (Architecture) {
    case PROCESSOR_ARCHITECTURE_INTEL:
      return "x86";
    case PROCESSOR_ARCHITECTURE_AMD64:
      return "x64";
    case PROCESSOR_ARCHITECTURE_IA64:
      return "Itanium";
    case PROCESSOR_ARCHITECTURE_ARM:
      return "ARM";
    default:
      return "unknown";
  }
}

std::string Joined(const TStrings& Strings) {
  std::string text;
  for (const std::string& string : Strings) text = StrAddDelimited(text, ", ", string);
  return text.empty() ? "none" : text;
}

void PrintSystem() {
  const TSystemInfo* system = TSystemInfo::GetInstance();
  const TOSInfo& info = system->GetOSInfo();
  std::printf("System %s\n", StrAddDelimited(info.GetName(), ", ", info.GetCSDVersion()).c_str());
  std::printf("  version %u.%u (%s), build %u, service pack %d.%d\n", info.GetMajorVersion(),
              info.GetMinorVersion(), OSVersionName(info.GetVersion()), info.GetBuildNumber(),
              info.GetServicePackMajor(), info.GetServicePackMinor());
  std::printf("  edition: %s; product type %u\n", OSVersionExName(info.GetVersionEx()),
              info.GetProductType());
  SYSTEM_INFO machine;
  TOSInfo::GetSystemInfo(machine);
  std::printf("  processor: %s, level %u, revision %04x, %lu of them; pages of %lu bytes\n",
              ArchitectureName(machine.wProcessorArchitecture), machine.wProcessorLevel,
              machine.wProcessorRevision, machine.dwNumberOfProcessors, machine.dwPageSize);
  std::printf("  serial ports: %s\n", Joined(system->GetComPorts()).c_str());
}

double Milliseconds(int64_t Units) { return static_cast<double>(Units) / 10'000; }

void PrintProcess() {
  const TProcessInfo process(::GetCurrentProcessId());
  std::printf("Process %lu, started %s, kernel %.1f ms, user %.1f ms\n", process.GetProcessId(),
              FormatTimeStamp(process.GetCreationTime()).c_str(),
              Milliseconds(process.GetKernelTime()), Milliseconds(process.GetUserTime()));
  std::printf("  %-8s %-20s %8s  %-23s %11s %9s\n", "thread", "name", "priority", "started",
              "kernel, ms", "user, ms");
  for (int32_t i = 0; i < process.GetThreadInfoCount(); ++i) {
    const TThreadInfo& thread = process.GetThreadInfo(i);
    std::printf("  %-8lu %-20s %8d  %-23s %11.1f %9.1f\n", thread.GetThreadId(),
                thread.GetName().c_str(), thread.GetPriority(),
                FormatTimeStamp(thread.GetCreationTime()).c_str(),
                Milliseconds(thread.GetKernelTime()), Milliseconds(thread.GetUserTime()));
  }
}

std::string FullVersion(const TFileVersion& Version) {
  return TModuleVersionInfo::VersionToString(Version,
                                             TFileVersionReleaseConversionOption::fvrcoInclude,
                                             TFileVersionBuildConversionOption::fvbcoInclude);
}

std::string FlagNames(TVersionInfoFileFlags Flags) {
  constexpr const char* Names[] = {"debug", "patched", "prerelease", "private build",
                                   "special build"};
  TStrings names;
  for (uint8_t i = 0; i < 5; ++i) {
    if (Flags.Contains(static_cast<TVersionInfoFileFlag>(i))) names.emplace_back(Names[i]);
  }
  return Joined(names);
}

void PrintVersion(const TModuleVersionInfo& Info) {
  constexpr const char* Systems[] = {"unknown",
                                     "DOS",
                                     "NT",
                                     "16-bit Windows",
                                     "32-bit Windows",
                                     "DOS, 16-bit Windows",
                                     "DOS, 32-bit Windows",
                                     "NT, 32-bit Windows"};
  constexpr const char* Types[] = {"unknown", "application", "library",       "driver",
                                   "font",    "VxD",         "static library"};
  std::printf("  file version %s, product version %s\n", FullVersion(Info.GetFileVersion()).c_str(),
              FullVersion(Info.GetProductVersion()).c_str());
  std::printf("  type: %s; system: %s; flags: %s\n", Types[static_cast<size_t>(Info.GetFileType())],
              Systems[static_cast<size_t>(Info.GetFileOS())],
              FlagNames(Info.GetFileFlags()).c_str());
  for (int32_t i = 0; i < Info.GetStringTableCount(); ++i) {
    const TVersionInfoStringTable& table = Info.GetStringTable(i);
    std::printf("  language %04x, code page %u\n", table.GetLanguage(), table.GetCodePage());
    for (int32_t name = 0; name < VersionInfoStringNameCount; ++name) {
      const auto id = static_cast<TVersionInfoStringNameId>(name);
      if (table.GetStringValues(id).empty()) continue;
      std::printf("    %-17s %s\n", VersionInfoStringName(id), table.GetStringValues(id).c_str());
    }
  }
}

void PrintModule(const TModuleInfo& Module) {
  std::printf("File %s\n", Module.GetFileName().c_str());
  if (Module.GetVersionInfo() == nullptr) {
    std::printf("  no version resource\n");
  } else {
    PrintVersion(*Module.GetVersionInfo());
  }
}

int Run(int Count, char** Arguments) {
  if (Count > 2) throw Exception("usage: velinfo [FILE]");
  if (Count == 2) {
    const DWORD attributes = ::GetFileAttributesA(Arguments[1]);
    if (attributes == INVALID_FILE_ATTRIBUTES)
      throw Exception(std::string("no such file: ") + Arguments[1]);
    if (attributes & FILE_ATTRIBUTE_DIRECTORY)
      throw Exception(std::string("not a file: ") + Arguments[1]);
  }

  PrintSystem();
  TThreadFactory::GetInstance()->MapName(::GetCurrentThreadId(), "Main thread");
  {
    const TWorker worker;
    PrintProcess();
  }

  if (Count == 2) {
    PrintModule(TModuleInfo(std::string(Arguments[1])));
  } else {
    PrintModule(*TModuleInfo::GetInstance());
  }
  return 0;
}

}  // namespace

int main(int Count, char** Arguments) {
  try {
    return Run(Count, Arguments);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "velinfo: %s\n", e.what());
    return 1;
  }
}
