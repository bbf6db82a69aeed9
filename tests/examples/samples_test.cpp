#include <gtest/gtest.h>

#include "tests/examples/run_example.hpp"

namespace velox {
namespace {

TEST(Samples, DoWhatTheDocumentationSaysOfThem) {
  const auto run = test::RunExample("samples", {});
  EXPECT_EQ(run.ExitCode, 0);
  EXPECT_EQ(run.Lines, TStrings{"all samples went well"});
}

}  // namespace
}  // namespace velox
