#include <gtest/gtest.h>

#include <string>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"

namespace velox {
namespace {

/// Runs an example whose standard output can't be written; gives its exit code, and what it says in
/// Errors.
DWORD RunWithoutOutput(const std::string& Name, const std::string& Arguments,
                       const std::string& Errors) {
  SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
  const auto open = [&](const char* FileName, DWORD Access, DWORD Disposition) {
    return THandle(::CreateFileA(FileName, Access, FILE_SHARE_READ | FILE_SHARE_WRITE, &inheritable,
                                 Disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
  };
  const THandle errors = open(Errors.c_str(), GENERIC_WRITE, CREATE_ALWAYS);
  const THandle output = open(Errors.c_str(), GENERIC_READ, OPEN_EXISTING);  // to read only
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = output.Get();
  startup.hStdError = errors.Get();
  std::string line = "\"" + test::ExamplePath(Name) + "\" " + Arguments;
  PROCESS_INFORMATION information{};
  EXPECT_TRUE(::CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                               &startup, &information));
  const THandle thread(information.hThread), process(information.hProcess);
  DWORD code = 0;
  EXPECT_TRUE(test::WaitUntil(
      [&] { return ::GetExitCodeProcess(process.Get(), &code) && code != STILL_ACTIVE; }));
  return code;
}

TEST(Examples, TellThatTheirOutputIsLost) {
  const test::TTemporaryFolder folder;
  const std::string in = folder.File("in"), errors = folder.File("errors");
  test::WriteFileBytes(in, ":00000001FF\r\n");
  const struct {
    const char* Name;
    std::string Arguments;
  } cases[] = {{"velhash", "--crc8 " + in},
               {"velhex", "info " + in},
               {"velzip", "compress " + in + " " + folder.File("out")},
               {"velgost", "mac --sbox test --key " + std::string(64, '1') + " " + in},
               {"velgost", "--help"}};
  for (const auto& each : cases) {
    EXPECT_EQ(RunWithoutOutput(each.Name, each.Arguments, errors), 1u) << each.Name;
    EXPECT_EQ(test::ReadFileBytes(errors),
              std::string(each.Name) + ": Cannot write to the standard output\r\n");
  }
}

}  // namespace
}  // namespace velox
