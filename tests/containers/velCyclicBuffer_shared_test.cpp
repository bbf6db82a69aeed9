#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/support.hpp"
#include "velox/containers/velCyclicBuffer.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

using test::TChild;
using test::TRole;

class TRing : public TSharedMemBuffer {
 public:
  /// Creates one of this size.
  explicit TRing(int32_t Size) : TRing(true, test::UniqueName("velox-ring-"), Size) {}
  /// Opens one; the number does not matter there.
  explicit TRing(const std::string& Name) : TRing(false, Name, 1) {}

 private:
  TRing(bool Create, const std::string& Name, int32_t Size) : TSharedMemBuffer(Create) {
    SetMemoryName(Name);
    CreateMemory(Size);
  }
};

/// Ends while it holds the lock.
const TRole Abandoner("ring-abandoner", [](const std::vector<std::string>& Arguments) {
  TRing ring(Arguments[0]);
  ring.Lock();
  ::TerminateProcess(::GetCurrentProcess(), 5);
  return 0;
});

/// Whether another thread can have the named mutex now.
bool MutexIsFree(const std::string& Name) {
  bool free = false;
  std::thread([&] {
    const THandle mutex(::OpenMutexA(MUTEX_ALL_ACCESS, FALSE, Name.c_str()));
    EXPECT_TRUE(mutex) << Name;
    free = ::WaitForSingleObject(mutex.Get(), 0) == WAIT_OBJECT_0;
    if (free) ::ReleaseMutex(mutex.Get());
  }).join();
  return free;
}

TEST(SharedMemBuffer, LayoutAndNamesAreAContractBetweenProcesses) {
  TRing ring(5000);
  const THandle mapping(::OpenFileMappingA(FILE_MAP_READ, FALSE, ring.GetMemoryName().c_str()));
  ASSERT_TRUE(mapping);
  const void* view = ::MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, 5012);
  ASSERT_NE(view, nullptr);
  int32_t count = 3;
  ring.WriteData("abc", count);
  count = 1;
  char first = 0;
  ring.ReadData(&first, count);
  EXPECT_EQ(std::memcmp(view, "\x88\x13\0\0\x01\0\0\0\x03\0\0\0abc", 15), 0);
  ::UnmapViewOfFile(view);

  EXPECT_TRUE(MutexIsFree(ring.GetMemoryName() + "Mutex"));
  ring.Lock();
  ring.Lock();
  EXPECT_EQ(ring.GetCount(), 2);
  ring.Unlock();
  EXPECT_FALSE(MutexIsFree(ring.GetMemoryName() + "Mutex"));
  ring.Unlock();
  EXPECT_TRUE(MutexIsFree(ring.GetMemoryName() + "Mutex"));
  ring.Unlock();  // not held: nothing
  EXPECT_TRUE(MutexIsFree(ring.GetMemoryName() + "Mutex"));
}

TEST(SharedMemBuffer, LocksOutTheOtherThreadsOfAProcess) {
  TRing ring(64);
  int32_t unguarded = 0;
  test::RunThreads(3, [&](int) {
    for (int i = 0; i < 300; ++i) {
      ring.Lock();
      const int32_t before = unguarded;
      ring.GetCount();
      unguarded = before + 1;
      ring.Unlock();
    }
  });
  EXPECT_EQ(unguarded, 900);
}

TEST(SharedMemBuffer, GoesOnAfterTheHolderOfTheLockHasDied) {
  TRing ring(64);
  for (const bool process : {true, false}) {
    if (process) {
      EXPECT_EQ(TChild(test::RoleCommand("ring-abandoner", {ring.GetMemoryName()})).Wait(), 5u);
    } else {
      std::thread([&] { ring.Lock(); }).join();
    }
    int32_t count = 2;
    ring.WriteData("ok", count);
    EXPECT_EQ(count, 2);
    EXPECT_TRUE(MutexIsFree(ring.GetMemoryName() + "Mutex")) << process;
  }
}

TEST(SharedMemBuffer, ReleasingGivesBackLockMemoryAndHandles) {
  const uint32_t before = test::HandleCount();
  {
    TRing ring(64);
    TRing other(ring.GetMemoryName());
    ring.Lock();
    ring.ReleaseMemory();
    int32_t count = 1;
    EXPECT_THROW(ring.WriteData("x", count), Exception);
    EXPECT_TRUE(MutexIsFree(ring.GetMemoryName() + "Mutex"));
    EXPECT_EQ(other.GetSize(), 64);
    ring.SetMemoryName(test::UniqueName("velox-ring-"));
    ring.CreateMemory(32);
    EXPECT_EQ(ring.GetSize(), 32);
  }
  EXPECT_EQ(test::HandleCount(), before);
}

TEST(SharedMemBuffer, TellsWhyThereIsNoMemory) {
  TSharedMemBuffer opener(false);
  opener.SetMemoryName(test::UniqueName("velox-absent-"));
  EXPECT_EQ(test::ErrorCodeOf([&] { opener.CreateMemory(64); }), ERROR_FILE_NOT_FOUND);
  TSharedMemBuffer creator(true);
  EXPECT_THROW(creator.CreateMemory(-1), Exception);
}

TEST(SharedMemBuffer, AFailureMidwayKeepsWhatItGotUntilItIsReleased) {
  const uint32_t before = test::HandleCount();
  {
    const std::string name = test::UniqueName("velox-ring-");
    TSharedMemBuffer ring(true);
    ring.SetMemoryName(name);
    {
      // Names are common to all kinds of objects: this one takes the mutex's.
      const THandle event(::CreateEventA(nullptr, FALSE, FALSE, (name + "Mutex").c_str()));
      EXPECT_EQ(test::ErrorCodeOf([&] { ring.CreateMemory(64); }), ERROR_INVALID_HANDLE);
      EXPECT_TRUE(THandle(::OpenFileMappingA(FILE_MAP_READ, FALSE, name.c_str())));
    }
    const auto again = [&ring] { ring.CreateMemory(64); };
    EXPECT_EQ(test::MessageOf(again), "Already Allocated");
    ring.ReleaseMemory();
    ring.CreateMemory(32);
    EXPECT_EQ(test::MessageOf(again), "Already Allocated");
    EXPECT_EQ(ring.GetSize(), 32);
  }
  EXPECT_EQ(test::HandleCount(), before);
}

TEST(SharedMemBuffer, AnOpenerRefusesASizeBeyondItsView) {
  TRing ring(64);
  TRing opener(ring.GetMemoryName());
  const THandle mapping(::OpenFileMappingA(FILE_MAP_WRITE, FALSE, ring.GetMemoryName().c_str()));
  auto* words =
      static_cast<volatile uint32_t*>(::MapViewOfFile(mapping.Get(), FILE_MAP_WRITE, 0, 0, 0));
  ASSERT_NE(words, nullptr);
  words[0] = 0x7FFFFFFF;
  words[1] = 0x7FFFFF00;
  words[2] = 0x7FFFFF00;
  int32_t count = 100;
  char bytes[100] = "";
  EXPECT_THROW(opener.WriteData(bytes, count), Exception);
  EXPECT_THROW(opener.ReadData(bytes, count), Exception);
  EXPECT_TRUE(MutexIsFree(ring.GetMemoryName() + "Mutex"));
  ::UnmapViewOfFile(const_cast<uint32_t*>(words));
}

}  // namespace
}  // namespace velox
