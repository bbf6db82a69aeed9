#include "velox/foundation/velTrace.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/support/replaced_import.hpp"
#include "tests/support/support.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace velox {
namespace {

using TArguments = std::vector<std::string>;

// The log of a process is made once, so most cases run in a copy of the program of their own, in an
// empty folder.
struct TLogFolder {
  TLogFolder() {
    const std::string program = GetProgramFileName();
    for (const auto& entry : std::filesystem::directory_iterator(ExtractFolder(program))) {
      const std::filesystem::path& path = entry.path();
      if (path.extension() != ".dll") continue;
      ::CopyFileA(path.string().c_str(), Folder.File(path.filename().string()).c_str(), FALSE);
    }
    ::CopyFileA(program.c_str(), Folder.File("app.exe").c_str(), FALSE);
  }
  uint32_t Run(const std::string& Role, const std::string& Argument = "") const {
    return test::TChild(Format("\"%s\" --role=%s \"%s\"", Folder.File("app.exe").c_str(),
                               Role.c_str(), Argument.c_str()))
        .Wait();
  }
  std::vector<std::string> Lines(const std::string& Name = "app.log") const {
    std::istringstream file(test::ReadFileBytes(Folder.File(Name)));
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
      EXPECT_TRUE(!line.empty() && line.back() == '\r') << line;
      line.pop_back();
      lines.push_back(line);
    }
    return lines;
  }
  bool Exists(const std::string& Name) const { return std::filesystem::exists(Folder.File(Name)); }
  uint64_t Size(const std::string& Name) const {
    return std::filesystem::file_size(Folder.File(Name));
  }
  void MakeFile(const std::string& Name, std::streamoff Size) const {
    std::ofstream(Folder.File(Name), std::ios::binary).seekp(Size - 1).put('\0');
  }
  test::TTemporaryFolder Folder;
};

const std::string Stamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})";

// Whether a line is a record with this text, of this thread. Both are regular expressions.
bool IsRecord(const std::string& Line, const std::string& Text,
              const std::string& Thread = "[0-9A-F]{8}") {
  return std::regex_match(Line, std::regex(Stamp + R"(   \[)" + Thread + R"(\]  )" + Text));
}

const test::TRole WriteRole("trace-write", [](const TArguments& Arguments) {
  Trace("dropped", ttComment);
  Trace(Arguments.at(0), ttDebug);
  Trace("again", ttError);
  return 0;
});

TEST(TraceLog, ARecordIsALineAndTheFirstIsPrecededByABanner) {
  const TLogFolder log;
  EXPECT_EQ(log.Run("trace-write", "some text"), 0u);
  const auto lines = log.Lines();
  ASSERT_GE(lines.size(), 3u);
  const size_t first = lines.size() - 2;
  // The version resource of the test program.
  EXPECT_NE(lines.at(first - 2).find("]  Module version: 3.1.2 (Build 42)"), std::string::npos);
  EXPECT_TRUE(IsRecord(lines[first - 1], "Module started: " + Stamp + " ")) << lines[first - 1];
  EXPECT_TRUE(IsRecord(lines[first], "some text")) << lines[first];
  EXPECT_TRUE(IsRecord(lines[first + 1], "again"));
}

HANDLE WINAPI NoSnapshot(DWORD, DWORD) { return INVALID_HANDLE_VALUE; }
BOOL WINAPI WriteTenBytes(HANDLE File, const void* Data, DWORD, DWORD* Written, OVERLAPPED*) {
  return ::WriteFile(File, Data, 10, Written, nullptr);
}

const test::TRole LateRole("trace-late", [](const TArguments&) {
  {
    const test::TReplacedImport silent("velox.dll", "kernel32.dll", "CreateToolhelp32Snapshot",
                                       &NoSnapshot);
    {
      const test::TReplacedImport full("velox.dll", "kernel32.dll", "WriteFile", &WriteTenBytes);
      Trace("torn", ttDebug);
    }
    Trace("one", ttDebug);
    Trace("two", ttDebug);
  }
  Trace("three", ttDebug);
  return 0;
});

TEST(TraceLog, WhatIsMissingOfTheBannerComesLaterAndATornLineEnds) {
  const TLogFolder log;
  EXPECT_EQ(log.Run("trace-late"), 0u);
  const auto lines = log.Lines();
  const char* expected[] = {"Module version: .*", "one", "two", "Module started: .*", "three"};
  ASSERT_EQ(lines.size(), 1 + std::size(expected));
  EXPECT_EQ(lines[0].size(), 10u);
  for (size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_TRUE(IsRecord(lines[i + 1], expected[i])) << lines[i + 1];
  }
}

TEST(TraceLog, RotatesAtExactly104857600Bytes) {
  const TLogFolder log;
  log.MakeFile("app.log", 104'857'599);
  test::WriteFileBytes(log.Folder.File("app.log.1"), "older");
  EXPECT_EQ(log.Run("trace-write", "x"), 0u);
  // One byte below the limit it was appended to; that made it full, so the second record went to a
  // new file.
  EXPECT_EQ(log.Lines().size(), 1u);
  EXPECT_NE(log.Lines().at(0).find("again"), std::string::npos);
  EXPECT_GT(log.Size("app.log.1"), 104'857'599u);
}

TEST(TraceLog, AFullFileThatCannotBeRenamedLosesTheRecordOnly) {
  const TLogFolder log;
  log.MakeFile("app.log", 104'857'600);
  ::CreateDirectoryA(log.Folder.File("app.log.1").c_str(), nullptr);  // in the way of the renaming
  EXPECT_EQ(log.Run("trace-write", "x"), 0u);
  EXPECT_EQ(log.Size("app.log"), 104'857'600u);
}

// Another process renames the full file, and begins a new one.
void RotateElsewhere() {
  const std::string file = TTracer::GetInstance()->GetFileName();
  ::MoveFileA(file.c_str(), (file + ".1").c_str());
  test::WriteFileBytes(file, "other\r\n");
}
DWORD WINAPI WaitForTurn(HANDLE, DWORD) {
  RotateElsewhere();
  return WAIT_OBJECT_0;
}
BOOL WINAPI Move(const char*, const char*) {
  RotateElsewhere();
  return TRUE;
}

const test::TRole TurnRole("trace-turn", [](const TArguments& Arguments) {
  const bool before = Arguments.at(0) == "before";
  const test::TReplacedImport meanwhile(
      "velox.dll", "kernel32.dll", before ? "WaitForSingleObject" : "MoveFileA",
      before ? reinterpret_cast<void (*)()>(&WaitForTurn) : reinterpret_cast<void (*)()>(&Move));
  Trace("own", ttDebug);
  return 0;
});

TEST(TraceLog, ARotationByAnotherProcessMeanwhileCostsNothing) {
  for (const char* when : {"before", "after"}) {
    const TLogFolder log;
    log.MakeFile("app.log", 104'857'600);
    EXPECT_EQ(log.Run("trace-turn", when), 0u);
    EXPECT_EQ(log.Size("app.log.1"), 104'857'600u) << when;
    const auto lines = log.Lines();
    EXPECT_EQ(lines.front(), "other") << when;
    EXPECT_TRUE(IsRecord(lines.back(), "own")) << when;
  }
}

DWORD WINAPI NoFileName(HMODULE, char*, DWORD) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return 0;
}

const test::TRole SubdirRole("trace-subdir", [](const TArguments& Arguments) {
  TTracer& tracer = *TTracer::GetInstance();
  const std::string beside = tracer.GetFileName();
  {
    const test::TReplacedImport failing("velox.dll", "kernel32.dll", "GetModuleFileNameA",
                                        &NoFileName);
    test::MessageOf([&] { tracer.SetProgramDataSubdir(Arguments.at(0)); });
  }
  if (!tracer.GetProgramDataSubdir().empty()) return 2;  // what failed can be tried again
  tracer.SetProgramDataSubdir(Arguments.at(0));
  Trace("here", ttDebug);
  // Where the system knows no folder for all users, the log stays beside the program.
  const std::string file = tracer.GetFileName();
  const bool moved = file.find(Arguments.at(0) + "\\Logs\\app.log") != std::string::npos;
  return std::filesystem::exists(file) && (moved || file == beside) ? 0 : 1;
});

TEST(TraceLog, TheFolderCanBeChosen) {
  const TLogFolder log;
  EXPECT_EQ(log.Run("trace-subdir", "VeloxTest\\" + test::UniqueName("sub")), 0u);
}

const test::TRole ThreadsRole("trace-threads", [](const TArguments&) {
  test::RunThreads(8, [](int t) {
    for (int i = 0; i < 50; ++i) Trace(Format("thread %d record %d", t, i), ttDebug);
  });
  return 0;
});

TEST(TraceLog, RecordsOfSeveralThreadsStayWholeAndInTimeOrder) {
  const TLogFolder log;
  EXPECT_EQ(log.Run("trace-threads"), 0u);
  const auto lines = log.Lines();
  int next[8] = {};
  std::string before;
  for (const std::string& line : lines) {
    EXPECT_LE(before, line.substr(0, 23));
    before = line.substr(0, 23);
    std::smatch match;
    if (!std::regex_search(line, match, std::regex(R"(\]  thread (\d) record (\d+)$)"))) continue;
    EXPECT_EQ(std::stoi(match[2]), next[std::stoi(match[1])]++);
  }
  for (const int count : next) EXPECT_EQ(count, 50);
}

const test::TRole ExceptionsRole("trace-exceptions", [](const TArguments&) {
  const char* texts[] = {"Read failed", "Line ended\n", ""};
  for (const char* text : texts) {
    try {
      throw EConvertError("boom");
    } catch (...) {
      TraceException(text);
    }
  }
  try {
    throw 5;
  } catch (...) {
    TraceException("odd");
  }
  TraceException("none");
  ::SetLastError(ERROR_ACCESS_DENIED);
  TraceOSError("Open");
  return ::GetLastError() == ERROR_ACCESS_DENIED ? 0 : 1;
});

TEST(TraceLog, ExceptionsAndSystemErrorsAreDescribed) {
  const TLogFolder log;
  EXPECT_EQ(log.Run("trace-exceptions"), 0u);
  const std::string all = test::ReadFileBytes(log.Folder.File("app.log"));
  for (const char* expected : {R"(\]  Read failed: boom\. EConvertError at [0-9A-F]{8,16}\r\n)",
                               R"(\]  Line ended\nboom\. EConvertError at [0-9A-F]{8,16}\r\n)",
                               R"(\]  : boom\. EConvertError at [0-9A-F]{8,16}\r\n)",
                               R"(\]  odd\. int at 0{8}\r\n)", R"(\]  none\. nil at 0{8}\r\n)"}) {
    EXPECT_TRUE(std::regex_search(all, std::regex(expected))) << expected << "\n" << all;
  }
  EXPECT_NE(all.find("]  Open - " + SystemErrorMessage(ERROR_ACCESS_DENIED) + "\r\n"),
            std::string::npos)
      << all;
}

class EOutOfItsMemory : public EOutOfMemory {};

const test::TRole OutOfMemoryRole("trace-memory", [](const TArguments& Arguments) {
  const std::string large(16 << 20, 'x');  // has address space of its own
  TerminateOnOutOfMemoryRequired = Arguments.at(0) == "end";
  try {
    throw EOutOfItsMemory();  // has another name, and so does not count
  } catch (...) {
    TraceException("Derived");
  }
  for (int i = 0; i < 2; ++i) {
    try {
      throw EOutOfMemory();
    } catch (...) {
      TraceException("Out");
    }
  }
  return 0;
});

TEST(TraceLog, TheFirstOutOfMemoryReportsTheHeapAndMayEndTheProcess) {
  const TLogFolder log;
  EXPECT_EQ(log.Run("trace-memory", "go on"), 0u);
  const std::string all = test::ReadFileBytes(log.Folder.File("app.log"));
  std::string pattern = "Derived: .*\r\n.*Out: .*\r\n";
  for (const char* label :
       {"TotalAddrSpace", "TotalUncommitted", "TotalCommitted", "TotalAllocated", "TotalFree",
        "FreeSmall", "FreeBig", "Unused", "Overhead", "HeapErrorCode"})
    pattern += std::string(".*\\]  ") + label + " = (\\d+)\r\n";
  std::smatch match;
  ASSERT_TRUE(std::regex_search(all, match, std::regex(pattern + ".*Out: .*\r\n$"))) << all;
  const auto value = [&](size_t Label) { return std::stoll(match[Label]); };
  EXPECT_GT(value(4), 0);
  EXPECT_GE(value(3), value(4));
  EXPECT_EQ(value(1), value(3) + value(2));
  EXPECT_EQ(value(10), 0);

  const TLogFolder ended;
  EXPECT_EQ(ended.Run("trace-memory", "end"), 1u);
  EXPECT_NE(ended.Lines().back().find("]  Application terminated due to out of memory"),
            std::string::npos);
}

bool NoMemory = false;
void* Allocate(size_t Size) { return NoMemory ? nullptr : std::malloc(Size); }

const test::TRole NoMemoryRole("trace-no-memory", [](const TArguments&) {
  // Where every `new` of the process gets its memory.
  const test::TReplacedImport malloc("libstdc++-6.dll", "msvcrt.dll", "malloc", &Allocate);
  if (!malloc) return 2;
  TerminateOnOutOfMemoryRequired = true;
  []() noexcept {
    NoMemory = true;
    try {
      const volatile size_t size = 100;
      ::operator delete(::operator new(size));
    } catch (...) {
      TraceException("a text that is longer than what a string holds in itself");
    }
  }();
  return 3;
});

TEST(TraceLog, WithoutAnyMemoryTheProcessEndsAsWanted) {
  const TLogFolder log;
  EXPECT_EQ(log.Run("trace-no-memory"), 1u);
}

// Takes the lock that the system holds while it loads a library.
class TLoaderLock {
 public:
  TLoaderLock() {
    Call<LONG(WINAPI*)(ULONG, ULONG*, ULONG_PTR*)>("LdrLockLoaderLock")(0, nullptr, &Cookie_);
  }
  ~TLoaderLock() { Call<LONG(WINAPI*)(ULONG, ULONG_PTR)>("LdrUnlockLoaderLock")(0, Cookie_); }

 private:
  template <class F>
  static F Call(const char* Name) {
    return reinterpret_cast<F>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleA("ntdll.dll"), Name)));
  }
  ULONG_PTR Cookie_ = 0;
};

const test::TRole LoaderRole("trace-loader", [](const TArguments&) {
  const THandle go(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
  const THandle ready(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
  std::thread first([&] {
    ::SetEvent(ready.Get());
    ::WaitForSingleObject(go.Get(), INFINITE);
    Trace("the first record needs the loader", ttError);
  });
  ::WaitForSingleObject(ready.Get(), INFINITE);
  {
    const TLoaderLock lock;
    ::SetEvent(go.Get());
    ::Sleep(200);  // for the other thread to come to wait for the loader
    Trace("from a library that is being loaded", ttError);
  }
  first.join();
  return 0;
});

TEST(TraceLog, ALibraryMayTraceWhileItIsLoaded) {
  const TLogFolder log;
  EXPECT_EQ(log.Run("trace-loader"), 0u);
  EXPECT_GE(log.Lines().size(), 4u);
}

const test::TRole OwnFileRole("trace-own", [](const TArguments&) {
  Trace("dropped", ttComment);
  Trace("dropped", static_cast<TTraceType>(7));
  Trace("dropped", static_cast<TTraceType>(8));
  TraceThread("one");
  TraceThread("two");
  return static_cast<int>(::GetCurrentThreadId());
});

TEST(TraceThread, WritesToTheThreadsOwnFileAndCommentsLeaveNone) {
  const TLogFolder log;
  const uint32_t id = log.Run("trace-own");
  const auto lines = log.Lines(Format("app%08X.log", id));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(IsRecord(lines[1], "two", Format("%08X", id))) << lines[1];
  EXPECT_FALSE(log.Exists("app.log"));
}

void CALLBACK AddOne(ULONG_PTR Number) { ++*reinterpret_cast<int*>(Number); }
void CALLBACK RaiseConvert(ULONG_PTR) { throw EConvertError("inside the APC"); }

TEST(UserAPC, RunsOnTheThreadAndItsExceptionReachesTheWait) {
  const test::TLogSince log;
  const THandle own(GetRealCurrentThreadHandle());
  int number = 0;
  EXPECT_NE(TraceAndQueueUserAPC(&AddOne, own.Get(), reinterpret_cast<ULONG_PTR>(&number)), 0u);
  EXPECT_NE(TraceAndQueueUserAPC(&RaiseConvert, own.Get(), 0xAB), 0u);
  EXPECT_THROW(SleepAlertable(), EConvertError);
  EXPECT_EQ(number, 1);
  EXPECT_TRUE(std::regex_search(
      log.Text(),
      std::regex(
          R"(Error  : APC = [0-9A-F]{8,16}, hThread = [0-9A-F]{8}, dwData = 000000AB: inside the APC\. EConvertError)")));
  EXPECT_EQ(TraceAndQueueUserAPC(&AddOne, nullptr, 0), 0u);
}

// A second velox.dll, which this program does not hold by itself.
const test::TRole UnloadRole("trace-unload", [](const TArguments&) {
  const std::string folder = ExtractFolder(GetProgramFileName());
  ::CopyFileA((folder + "velox.dll").c_str(), (folder + "copy.dll").c_str(), FALSE);
  const HMODULE library = ::LoadLibraryA((folder + "copy.dll").c_str());
  const auto distance = reinterpret_cast<uintptr_t>(library) -
                        reinterpret_cast<uintptr_t>(::GetModuleHandleA("velox.dll"));
  const auto queue = reinterpret_cast<decltype(&TraceAndQueueUserAPC)>(
      reinterpret_cast<uintptr_t>(&TraceAndQueueUserAPC) + distance);
  int number = 0;
  queue(&AddOne, ::GetCurrentThread(), reinterpret_cast<ULONG_PTR>(&number));
  ::FreeLibrary(library);
  ::SleepEx(0, TRUE);
  return number;
});

TEST(UserAPC, KeepsTheLibraryLoaded) { EXPECT_EQ(TLogFolder().Run("trace-unload"), 1u); }

TEST(UserAPC, AThreadsBodyThatRaisesIsLogged) {
  const test::TLogSince log;
  auto body = [](void*) { throw Exception("unhandled in a body"); };
  DWORD id = 0;
  const THandle thread(TThreadFactory::GetInstance()->CreateThread(
      "Faulty", TThreadExecutionRoutine::To(body), nullptr, id));
  WaitForSingleObjectAlertable(thread.Get());
  DWORD code = 0;
  ::GetExitCodeThread(thread.Get(), &code);
  EXPECT_EQ(code, 1u);
  EXPECT_EQ(TThreadFactory::GetInstance()->GetThreadName(id), "Faulty");  // is kept
  TThreadFactory::GetInstance()->UnmapName(id);
  EXPECT_TRUE(
      log.Holds("Thread \"Faulty\" ended by an exception: unhandled in a body. Exception at "));
}

}  // namespace
}  // namespace velox
