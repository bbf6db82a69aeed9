#include <gtest/gtest.h>

#include <algorithm>
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

constexpr int32_t Total = 50'000;
uint8_t ByteAt(int32_t Position) { return static_cast<uint8_t>(Position * 7 + Position / 251); }

/// Writes the whole sequence into a ring that another process has created.
const TRole Producer("ring-producer", [](const std::vector<std::string>& Arguments) {
  TSharedMemBuffer ring(false);
  ring.SetMemoryName(Arguments[0]);
  ring.CreateMemory(1);
  std::vector<uint8_t> chunk(600);
  int32_t sent = 0;
  const bool done = test::WaitUntil([&] {
    const int32_t asked = std::min(Total - sent, static_cast<int32_t>(1 + sent % 599));
    for (int32_t i = 0; i < asked; ++i) chunk[static_cast<size_t>(i)] = ByteAt(sent + i);
    int32_t count = asked;
    if (count > 0) ring.WriteData(chunk.data(), count);
    sent += count;
    return sent == Total;
  });
  return done ? ring.GetSize() : 0;
});

/// Ends while it holds the lock.
const TRole Abandoner("ring-abandoner", [](const std::vector<std::string>& Arguments) {
  TSharedMemBuffer ring(false);
  ring.SetMemoryName(Arguments[0]);
  ring.CreateMemory(0);
  ring.Lock();
  ::TerminateProcess(::GetCurrentProcess(), 5);
  return 0;
});

struct TCreated {
  explicit TCreated(int32_t Size) {
    Ring.SetMemoryName(Name);
    Ring.CreateMemory(Size);
  }
  const std::string Name = test::UniqueName("velox-ring-");
  TSharedMemBuffer Ring{true};
};

/// The system's error that CreateMemory raises, 0 for none.
uint32_t CreationError(TSharedMemBuffer& Ring, int32_t Size) {
  try {
    Ring.CreateMemory(Size);
  } catch (const EOSError& error) {
    return error.ErrorCode;
  }
  return 0;
}

std::string CreationMessage(TSharedMemBuffer& Ring, int32_t Size) {
  try {
    Ring.CreateMemory(Size);
  } catch (const Exception& raised) {
    return raised.what();
  }
  return "";
}

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
  TCreated created(5000);
  const THandle mapping(::OpenFileMappingA(FILE_MAP_READ, FALSE, created.Name.c_str()));
  ASSERT_TRUE(mapping);
  const void* view = ::MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, 5012);
  ASSERT_NE(view, nullptr);
  int32_t count = 3;
  created.Ring.WriteData("abc", count);
  count = 1;
  char first = 0;
  created.Ring.ReadData(&first, count);
  EXPECT_EQ(std::memcmp(view, "\x88\x13\0\0\x01\0\0\0\x03\0\0\0abc", 15), 0);
  ::UnmapViewOfFile(view);

  EXPECT_TRUE(MutexIsFree(created.Name + "Mutex"));
  created.Ring.Lock();
  created.Ring.Lock();
  EXPECT_EQ(created.Ring.GetCount(), 2);
  created.Ring.Unlock();
  EXPECT_FALSE(MutexIsFree(created.Name + "Mutex"));
  created.Ring.Unlock();
  EXPECT_TRUE(MutexIsFree(created.Name + "Mutex"));
  created.Ring.Unlock();  // not held: nothing
  EXPECT_TRUE(MutexIsFree(created.Name + "Mutex"));
}

TEST(SharedMemBuffer, CarriesASequenceBetweenTwoProcesses) {
  TCreated created(1000);
  TChild producer(test::RoleCommand("ring-producer", {created.Name}));
  std::vector<uint8_t> chunk(777);
  int32_t received = 0;
  bool right = true;
  EXPECT_TRUE(test::WaitUntil([&] {
    auto count = static_cast<int32_t>(chunk.size());
    created.Ring.ReadData(chunk.data(), count);
    for (int32_t i = 0; i < count; ++i)
      right = right && chunk[static_cast<size_t>(i)] == ByteAt(received + i);
    received += count;
    return received == Total;
  }));
  EXPECT_TRUE(right);
  EXPECT_EQ(producer.Wait(), 1000u);
}

TEST(SharedMemBuffer, LocksOutTheOtherThreadsOfAProcess) {
  TCreated created(64);
  int32_t unguarded = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 300; ++i) {
        created.Ring.Lock();
        const int32_t before = unguarded;
        created.Ring.GetCount();
        unguarded = before + 1;
        created.Ring.Unlock();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(unguarded, 900);
}

TEST(SharedMemBuffer, GoesOnAfterTheHolderOfTheLockHasDied) {
  TCreated created(64);
  for (const bool process : {true, false}) {
    if (process) {
      EXPECT_EQ(TChild(test::RoleCommand("ring-abandoner", {created.Name})).Wait(), 5u);
    } else {
      std::thread([&] { created.Ring.Lock(); }).join();
    }
    int32_t count = 2;
    created.Ring.WriteData("ok", count);
    EXPECT_EQ(count, 2);
    EXPECT_TRUE(MutexIsFree(created.Name + "Mutex")) << process;
  }
}

TEST(SharedMemBuffer, ReleasingGivesBackLockMemoryAndHandles) {
  const uint32_t before = test::HandleCount();
  {
    TCreated created(64);
    TSharedMemBuffer other(false);
    other.SetMemoryName(created.Name);
    other.CreateMemory(0);
    created.Ring.Lock();
    created.Ring.ReleaseMemory();
    int32_t count = 1;
    EXPECT_THROW(created.Ring.WriteData("x", count), Exception);
    EXPECT_TRUE(MutexIsFree(created.Name + "Mutex"));
    EXPECT_EQ(other.GetSize(), 64);
    created.Ring.SetMemoryName(test::UniqueName("velox-ring-"));
    created.Ring.CreateMemory(32);
    EXPECT_EQ(created.Ring.GetSize(), 32);
  }
  EXPECT_EQ(test::HandleCount(), before);
}

TEST(SharedMemBuffer, TellsWhyThereIsNoMemory) {
  TSharedMemBuffer opener(false);
  opener.SetMemoryName(test::UniqueName("velox-absent-"));
  EXPECT_EQ(CreationError(opener, 64), static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));
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
      EXPECT_EQ(CreationError(ring, 64), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
      EXPECT_TRUE(THandle(::OpenFileMappingA(FILE_MAP_READ, FALSE, name.c_str())));
    }
    EXPECT_EQ(CreationMessage(ring, 64), "Already Allocated");
    ring.ReleaseMemory();
    EXPECT_EQ(CreationMessage(ring, 32), "");
    EXPECT_EQ(ring.GetSize(), 32);
    EXPECT_EQ(CreationMessage(ring, 64), "Already Allocated");
    EXPECT_EQ(ring.GetSize(), 32);
  }
  EXPECT_EQ(test::HandleCount(), before);
}

TEST(SharedMemBuffer, AnOpenerRefusesASizeBeyondItsView) {
  TCreated created(64);
  TSharedMemBuffer opener(false);
  opener.SetMemoryName(created.Name);
  opener.CreateMemory(0);
  const THandle mapping(::OpenFileMappingA(FILE_MAP_WRITE, FALSE, created.Name.c_str()));
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
  EXPECT_TRUE(MutexIsFree(created.Name + "Mutex"));
  ::UnmapViewOfFile(const_cast<uint32_t*>(words));
}

}  // namespace
}  // namespace velox
