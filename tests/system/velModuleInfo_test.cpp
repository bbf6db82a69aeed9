#include "velox/system/velModuleInfo.hpp"

#include <gtest/gtest.h>

#include "tests/async/apc_thread.hpp"
#include "tests/support/replaced_import.hpp"
#include "tests/support/support.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

using enum TVersionInfoStringNameId;

constexpr TDateTime Minute = 1.0 / 1440;

// ------------------------------------------------------------------------------- version resources

TEST(ModuleVersion, IsWrittenAsTheOptionsSay) {
  using enum TFileVersionReleaseConversionOption;
  using enum TFileVersionBuildConversionOption;
  const struct {
    TFileVersion Version;
    TFileVersionReleaseConversionOption ReleaseOption;
    TFileVersionBuildConversionOption BuildOption;
    const char* Expected;
  } cases[] = {
      {{2, 5, 0, 7}, fvrcoIncludeIfNotZero, fvbcoIncludeIfNotZero, "2.5.7"},
      {{2, 5, 3, 7}, fvrcoDoNotInclude, fvbcoInclude, "2.5.7"},
      {{65535, 0, 3, 7}, fvrcoIncludeIfNotZero, fvbcoDoNotInclude, "65535.0.3"},
      {{2, 5, 0, 0}, fvrcoInclude, fvbcoInclude, "2.5.0.0"},
      {{2, 5, 0, 0}, fvrcoIncludeIfNotZero, fvbcoIncludeIfNotZero, "2.5"},
      {{2, 5, 0, 0}, fvrcoDoNotInclude, fvbcoIncludeIfNotZeroAsBuildString, "2.5"},
      {{2, 5, 0, 0}, fvrcoDoNotInclude, fvbcoIncludeAsBuildString, "2.5 (Build 0)"},
      {{2, 5, 1, 65535}, fvrcoInclude, fvbcoIncludeIfNotZeroAsBuildString, "2.5.1 (Build 65535)"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TModuleVersionInfo::VersionToString(c.Version, c.ReleaseOption, c.BuildOption),
              c.Expected);
  }
}

TEST(ModuleVersion, ComparesWithoutTheBuild) {
  const auto compare = &TModuleVersionInfo::CompareVersions;
  EXPECT_EQ(compare({1, 2, 3, 4}, {1, 2, 3, 9}), 0);
  EXPECT_EQ(compare({1, 9, 9, 0}, {2, 0, 0, 0}), -1);
  EXPECT_EQ(compare({1, 9, 0, 0}, {1, 2, 9, 0}), 7);
  EXPECT_EQ(compare({1, 2, 0, 0}, {1, 2, 65535, 0}), -65535);
}

// The values stand in velModuleInfo_test.rc, which is linked into this program.
TEST(ModuleInfo, DecodesTheProgramsResource) {
  const TModuleInfo* module = TModuleInfo::GetInstance();
  EXPECT_EQ(module->ModuleVersion(), "3.1.2 (Build 42)");
  const TModuleVersionInfo* info = module->GetVersionInfo();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->GetFileVersion().Build, 42);
  EXPECT_EQ(info->GetProductVersion().Major, 65535);
  EXPECT_EQ(info->GetProductVersion().Release, 7);
  using enum TVersionInfoFileFlag;
  // Bits 2, 8, 16 (no flag of ours) and 32.
  EXPECT_EQ(info->GetFileFlags(),
            TVersionInfoFileFlags({viffPrerelease, viffPrivateBuild, viffSpecialBuild}));
  EXPECT_EQ(info->GetFileOS(), TVersionInfoFileOS::vifoNTWin32);
  EXPECT_EQ(info->GetFileType(), TVersionInfoFileType::viftApplication);
}

TEST(ModuleInfo, HasAStringTableForEachTranslation) {
  const TModuleVersionInfo& info = *TModuleInfo::GetInstance()->GetVersionInfo();
  ASSERT_EQ(info.GetStringTableCount(), 3);
  const TVersionInfoStringTable& english = info.GetStringTable(0);
  EXPECT_EQ(english.GetLanguage(), 0x0409);
  EXPECT_EQ(english.GetCodePage(), 1252);
  const char* expected[VersionInfoStringNameCount] = {
      "for the tests", "Velox",         "Tests of Velox", "3.1.2 beta",
      "velox_tests",   "none",          "none either",    "velox_tests.exe",
      "private",       "Velox library", "65535.0",        "special"};
  for (int32_t i = 0; i < VersionInfoStringNameCount; ++i) {
    EXPECT_EQ(english.GetStringValues(static_cast<TVersionInfoStringNameId>(i)), expected[i]) << i;
  }
  const TVersionInfoStringTable& german = info.GetStringTable(1);
  EXPECT_EQ(german.GetLanguage(), 0x0407);
  EXPECT_EQ(german.GetCodePage(), 1200);
  EXPECT_EQ(german.GetStringValues(visnFileDescription),
            "Pr\xFC"
            "fungen");
  EXPECT_EQ(german.GetStringValues(visnProductName), "");
  EXPECT_EQ(german.GetStringValues(visnComments), "");
  // Listed, but there is no such table.
  EXPECT_EQ(info.GetStringTable(2).GetCodePage(), 1251);
  EXPECT_EQ(info.GetStringTable(2).GetStringValues(visnCompanyName), "");
  EXPECT_THROW(info.GetStringTable(3), Exception);
}

TEST(ModuleInfo, FilesWithoutAResourceHaveNoVersion) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("plain.txt");
  test::WriteFileBytes(file, "no module");
  for (const std::string& name : {file, folder.File("missing.dll"), folder.Path()}) {
    const TModuleInfo info(name);
    EXPECT_EQ(info.GetFileName(), name);
    EXPECT_EQ(info.GetVersionInfo(), nullptr) << name;
    EXPECT_EQ(info.ModuleVersion(), "") << name;
  }
  EXPECT_THROW(TModuleInfo(""), EAssertionFailed);
  EXPECT_THROW(TModuleInfo(reinterpret_cast<HMODULE>(1)), EOSError);
  alignas(4) uint8_t noRoot[1024] = {};
  EXPECT_THROW(TModuleVersionInfo{noRoot}, Exception);
}

TEST(ModuleInfo, NamesTheFileOfALoadedModule) {
  const TModuleInfo module(::GetModuleHandleA("kernel32.dll"));
  EXPECT_EQ(module.GetFileName().substr(module.GetFileName().rfind('\\') + 1), "kernel32.dll");
  ASSERT_NE(module.GetVersionInfo(), nullptr);
  EXPECT_EQ(module.GetVersionInfo()->GetFileType(), TVersionInfoFileType::viftDll);
}

// --------------------------------------------------------------------------- processes and threads

const TThreadInfo* FindThread(const TProcessInfo& Process, DWORD Id) {
  for (int32_t i = 0; i < Process.GetThreadInfoCount(); ++i) {
    if (Process.GetThreadInfo(i).GetThreadId() == Id) return &Process.GetThreadInfo(i);
  }
  return nullptr;
}

TEST(ProcessInfo, KnowsItsThreads) {
  const test::TApcThread thread;
  ::SetThreadPriority(thread.Handle(), THREAD_PRIORITY_HIGHEST);
  TProcessInfo process(::GetCurrentProcessId());
  EXPECT_EQ(process.GetCallerProcessId(), process.GetProcessId());
  EXPECT_EQ(process.GetHandle(), ::GetCurrentProcess());

  const TThreadInfo* waiting = FindThread(process, thread.Id());
  ASSERT_NE(waiting, nullptr);
  EXPECT_EQ(waiting->GetName(), "APC thread");
  EXPECT_EQ(waiting->GetPriority(), THREAD_PRIORITY_HIGHEST);
  EXPECT_EQ(waiting->GetCallerThreadId(), ::GetCurrentThreadId());
  EXPECT_EQ(::GetThreadId(waiting->GetHandle()), thread.Id());
  EXPECT_NEAR(waiting->GetCreationTime(), Now(), 5 * Minute);
  EXPECT_GE(waiting->GetCreationTime(), process.GetCreationTime());

  const TThreadInfo* own = FindThread(process, ::GetCurrentThreadId());
  ASSERT_NE(own, nullptr);
  EXPECT_EQ(own->GetHandle(), ::GetCurrentThread());

  auto second = std::make_unique<test::TApcThread>();
  const DWORD added = second->Id();
  EXPECT_EQ(FindThread(process, added), nullptr);
  process.Refresh();
  EXPECT_NE(FindThread(process, added), nullptr);
  second.reset();
  process.Refresh();
  EXPECT_EQ(FindThread(process, added), nullptr);
  EXPECT_THROW(process.GetThreadInfo(process.GetThreadInfoCount()), Exception);
}

HANDLE WINAPI OpenNoThread(DWORD, BOOL, DWORD) {
  ::SetLastError(ERROR_ACCESS_DENIED);
  return nullptr;
}

TEST(ProcessInfo, AFailedRefreshLeavesTheThreads) {
  const test::TApcThread thread;
  TProcessInfo process(::GetCurrentProcessId());
  const TThreadInfo* const before = FindThread(process, thread.Id());
  {
    const test::TReplacedImport failing("velox.dll", "kernel32.dll", "OpenThread", &OpenNoThread);
    EXPECT_THROW(process.Refresh(), EOSError);
  }
  EXPECT_EQ(FindThread(process, thread.Id()), before);
}

TEST(ProcessInfo, TimesAreTheSystems) {
  TProcessInfo process(::GetCurrentProcessId());
  FILETIME creation, exit, kernel, user, local;
  ASSERT_TRUE(::GetProcessTimes(::GetCurrentProcess(), &creation, &exit, &kernel, &user));
  SYSTEMTIME time;
  ::FileTimeToLocalFileTime(&creation, &local);
  ::FileTimeToSystemTime(&local, &time);
  EXPECT_EQ(process.GetCreationTime(), SystemTimeToDateTime(time));
  EXPECT_LE(process.GetCreationTime(), Now());

  // Work until the system has counted some; the refreshed object shows it, the same counter is not
  // shown twice.
  const int64_t before = process.GetUserTime() + process.GetKernelTime();
  EXPECT_TRUE(test::WaitUntil([&] {
    process.Refresh();
    return process.GetUserTime() + process.GetKernelTime() > before;
  }));
  ASSERT_TRUE(::GetProcessTimes(::GetCurrentProcess(), &creation, &exit, &kernel, &user));
  const auto count = [](const FILETIME& each) {
    return static_cast<int64_t>(uint64_t{each.dwHighDateTime} << 32 | each.dwLowDateTime);
  };
  EXPECT_LE(process.GetUserTime(), count(user));
  EXPECT_LE(process.GetKernelTime(), count(kernel));
  EXPECT_EQ(TProcessInfo::GetInstance()->GetProcessId(), ::GetCurrentProcessId());
}

const test::TRole WaitRole("wait-for-end", [](const std::vector<std::string>&) {
  ::Sleep(INFINITE);
  return 0;
});

TEST(ProcessInfo, DescribesAnotherProcessAndClosesItsHandles) {
  test::TChild child(test::RoleCommand("wait-for-end"));
  const DWORD id = ::GetProcessId(child.Process());
  { const TProcessInfo first(id); }
  const uint32_t before = test::HandleCount();
  {
    const TProcessInfo process(id);
    EXPECT_EQ(::GetProcessId(process.GetHandle()), id);
    EXPECT_NEAR(process.GetCreationTime(), Now(), 5 * Minute);
    EXPECT_GE(process.GetThreadInfoCount(), 1);
    EXPECT_EQ(FindThread(process, ::GetCurrentThreadId()), nullptr);
  }
  EXPECT_EQ(test::HandleCount(), before);
  EXPECT_THROW(TProcessInfo(0xFFFFFFF0), EOSError);
  EXPECT_THROW(TThreadInfo(0xFFFFFFF0), EOSError);
}

}  // namespace
}  // namespace velox
