#include <gtest/gtest.h>

#include <string>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"

namespace velox {
namespace {

TEST(Examples, TellThatTheirOutputIsLost) {
  const test::TTemporaryFolder folder;
  const std::string in = folder.File("in"), said = folder.File("said");
  test::WriteFileBytes(in, ":00000001FF\r\n");
  const std::pair<std::string, std::string> cases[] = {
      {"velhash", "--crc8 " + in},
      {"velhex", "info " + in},
      {"velzip", "compress " + in + " " + folder.File("out")},
      {"velgost", "mac --sbox test --key " + std::string(64, '1') + " " + in},
      {"velgost", "--help"}};
  for (const auto& [name, arguments] : cases) {
    const THandle errors = test::OpenStream(said, GENERIC_WRITE, CREATE_ALWAYS);
    const THandle output = test::OpenStream(said, GENERIC_READ, OPEN_EXISTING);  // to read only
    EXPECT_EQ(test::AwaitExitCode(test::StartExample(name, arguments, output, errors)), 1u) << name;
    EXPECT_EQ(test::ReadFileBytes(said), name + ": Cannot write to the standard output\r\n");
  }
}

}  // namespace
}  // namespace velox
