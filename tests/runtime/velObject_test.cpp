#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "velox/runtime/velException.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velSingleton.hpp"
#include "velox/runtime/velStream.hpp"

namespace velox {

class TPlain : public TObject {};
class TDerived : public TPlain {
 public:
  explicit TDerived(int AValue) : Value(AValue) {}
  int Value;
};

namespace {

TEST(Object, ClassesHaveNamesAndCompare) {
  EXPECT_EQ(TClass::Of<TPlain>().GetName(), "TPlain");
  EXPECT_EQ(TClass().GetName(), "");
  EXPECT_EQ(TDerived(1).ClassName(), "TDerived");
  EXPECT_EQ(TClass::Of<TPlain>(), TClass::Of<TPlain>());
  EXPECT_NE(TClass::Of<TPlain>(), TClass::Of<TDerived>());
  EXPECT_NE(TClass::Of<TPlain>(), TClass());
  EXPECT_FALSE(TClass());
}

TEST(Object, AClassMakesObjectsOfItself) {
  EXPECT_EQ(TClass::Of<TPlain>().Create()->ClassName(), "TPlain");
  EXPECT_THROW(TClass::Of<TDerived>().Create(), Exception);
  EXPECT_THROW(TClass().Create(), Exception);
}

template <class F>
TExceptionDescription Describe(F&& Raise) {
  try {
    Raise();
  } catch (...) {
    return DescribeCurrentException();
  }
  return DescribeCurrentException();
}

TEST(Exceptions, AreDescribedByClassMessageAndAddress) {
  const auto own = Describe([] { throw EConvertError("bad digit"); });
  EXPECT_EQ(own.ClassName, "EConvertError");
  EXPECT_EQ(own.Message, "bad digit");
  EXPECT_NE(own.Address, nullptr);

  EXPECT_EQ(Describe([] { throw std::bad_alloc(); }).ClassName, "EOutOfMemory");
  EXPECT_EQ(Describe([] { throw EOutOfMemory(); }).ClassName, "EOutOfMemory");
  EXPECT_EQ(Describe([] { throw std::runtime_error("x"); }).Message, "x");
  const auto number = Describe([] { throw 5; });
  EXPECT_EQ(number.ClassName, "int");
  EXPECT_FALSE(number.HasMessage);
  EXPECT_EQ(Describe([] {}).ClassName, "nil");
}

TSingletonSlot Slot;
std::atomic<int> Constructions{0};

class TOnce : public TObject {
 public:
  static TObject* SingletonConstruction() {
    ++Constructions;
    std::this_thread::sleep_for(
        std::chrono::milliseconds(20));  // long enough for the others to find it in the making
    return new TOnce;
  }
  static TOnce* GetInstance() { return SingletonInstance<TOnce>(Slot); }
};

TEST(Singleton, ManyThreadsGetOneObject) {
  std::vector<TOnce*> seen(8);
  std::vector<std::thread> threads;
  for (TOnce*& mine : seen) threads.emplace_back([&mine] { mine = TOnce::GetInstance(); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(Constructions, 1);
  for (TOnce* one : seen) EXPECT_EQ(one, seen[0]);
  SingletonDestroy(Slot);
}

TEST(Singleton, AFailedConstructionIsTriedAgain) {
  static TSingletonSlot slot;
  bool fail = true;
  auto construct = [&fail]() -> TObject* {
    if (fail) throw Exception("not yet");
    return new TPlain;
  };
  const auto routine = TSingletonConstructionRoutine::To(construct);
  EXPECT_THROW(SingletonCreate(slot, routine), Exception);
  EXPECT_EQ(slot.load(), nullptr);
  fail = false;
  SingletonCreate(slot, routine);
  EXPECT_NE(slot.load(), nullptr);
  SingletonDestroy(slot);
}

struct TCounter {
  int Total = 0;
  int Add(int Value) { return Total += Value; }
  int Peek(int) const { return Total; }
};
int Twice(int Value) { return 2 * Value; }
using TIntMethod = TMethod<int(int)>;

TEST(Method, CallsMembersFunctionsAndCallables) {
  TCounter counter;
  EXPECT_EQ(TIntMethod::Bind<&TCounter::Add>(&counter)(3), 3);
  EXPECT_EQ(TIntMethod::Bind<&TCounter::Peek>(&counter)(0), 3);
  EXPECT_EQ(TIntMethod::Bind<&Twice>()(21), 42);
  int seen = 0;
  auto lambda = [&seen](int Value) { return seen = Value; };
  TIntMethod::To(lambda)(7);
  EXPECT_EQ(seen, 7);
}

TEST(Method, IsAssignedByItsCodeAndEqualByBothParts) {
  TCounter a;
  TCounter b;
  EXPECT_FALSE(TIntMethod());
  EXPECT_FALSE(TIntMethod(nullptr, &a));
  EXPECT_TRUE(TIntMethod::Bind<&Twice>());
  EXPECT_EQ(TIntMethod::Bind<&TCounter::Add>(&a), TIntMethod::Bind<&TCounter::Add>(&a));
  EXPECT_NE(TIntMethod::Bind<&TCounter::Add>(&a), TIntMethod::Bind<&TCounter::Add>(&b));
  EXPECT_THROW(TIntMethod()(1), EAssertionFailed);
}

TEST(MemoryStream, WritesReadsAndSeeks) {
  TMemoryStream stream;
  stream.WriteBuffer("hello world", 11);
  EXPECT_EQ(stream.GetSize(), 11);
  EXPECT_EQ(stream.Seek(-5, TSeekOrigin::soEnd), 6);
  char text[16] = "";
  EXPECT_EQ(stream.Read(text, 16), 5);
  EXPECT_EQ(std::string(text, 5), "world");
  EXPECT_EQ(stream.Read(text, 16), 0);
  EXPECT_THROW(stream.ReadBuffer(text, 1), EReadError);
  EXPECT_THROW(stream.Seek(-1, TSeekOrigin::soBeginning), EStreamError);
}

TEST(MemoryStream, WritingBehindTheEndFillsTheGapWithZeros) {
  TMemoryStream stream("ab", 2);
  stream.SetPosition(4);
  stream.WriteBuffer("c", 1);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(stream.GetMemory()), 5),
            std::string("ab\0\0c", 5));
  stream.SetSize(1);
  EXPECT_EQ(stream.GetPosition(), 1);
}

TEST(MemoryStream, RefusesWhatItCannotHold) {
  TMemoryStream stream;
  stream.SetPosition(std::numeric_limits<int32_t>::max());
  EXPECT_THROW(stream.Write("x", 1), EStreamError);
  stream.SetPosition(std::numeric_limits<int64_t>::max());
  EXPECT_THROW(stream.Seek(1, TSeekOrigin::soCurrent), EStreamError);
  EXPECT_EQ(stream.Read(nullptr, 1), 0);
  EXPECT_EQ(stream.GetSize(), 0);
  EXPECT_THROW(TMemoryStream("ab", -1), Exception);
}
}  // namespace
}  // namespace velox
