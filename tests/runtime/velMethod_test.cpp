#include "velox/runtime/velMethod.hpp"

#include <gtest/gtest.h>

namespace velox {
namespace {

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

}  // namespace
}  // namespace velox
