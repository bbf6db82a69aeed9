#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "tests/support/summary.hpp"
#include "tests/support/support.hpp"

int main(int argc, char** argv) {
  // A child that a case started to play a part in it.
  constexpr const char Role[] = "--role=";
  if (argc > 1 && std::strncmp(argv[1], Role, sizeof Role - 1) == 0) {
    return velox::test::RunRole(argv[1] + sizeof Role - 1, {argv + 2, argv + argc});
  }
  ::testing::InitGoogleTest(&argc, argv);
  return velox::test::RunAllWithSummary();
}
