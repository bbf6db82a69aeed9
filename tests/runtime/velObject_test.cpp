#include "velox/runtime/velObject.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "velox/runtime/velException.hpp"
#include "velox/runtime/velSingleton.hpp"

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

}  // namespace
}  // namespace velox
