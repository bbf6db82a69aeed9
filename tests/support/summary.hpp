#pragma once

#include <gtest/gtest.h>

#include <cstdio>

namespace velox::test {

/// Runs the cases and closes with one line that counts them. No case run at all is a failure.
inline int RunAllWithSummary() {
  const int result = RUN_ALL_TESTS();
  const ::testing::UnitTest& run = *::testing::UnitTest::GetInstance();
  std::printf("%d passed, %d failed, %d skipped\n", run.successful_test_count(),
              run.failed_test_count(), run.skipped_test_count());
  std::fflush(stdout);
  return run.test_to_run_count() > 0 || ::testing::GTEST_FLAG(list_tests) ? result : 1;
}

}  // namespace velox::test
