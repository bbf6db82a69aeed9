#include <gtest/gtest.h>

#include "tests/support/summary.hpp"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  return velox::test::RunAllWithSummary();
}
