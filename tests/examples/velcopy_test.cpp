// The program velcopy, run as its users run it: two processes, their output, their exit codes.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/support/support.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velHandle.hpp"

namespace velox {
namespace {

/// velcopy with its output, both streams, in a file.
class TVelcopy {
 public:
  TVelcopy(const test::TTemporaryFolder& Folder, const std::string& Arguments)
      : Output_(Folder.File(test::UniqueName("output-"))) {
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    const THandle output(::CreateFileA(Output_.c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                       &inheritable, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                                       nullptr));
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = startup.hStdError = output.Get();
    char program[MAX_PATH] = "";
    ::GetModuleFileNameA(nullptr, program, sizeof program);
    const std::string self = program;
    std::string line = "\"";
    line += self.substr(0, self.rfind('\\')) + "\\velcopy.exe\" " + Arguments;
    PROCESS_INFORMATION information{};
    EXPECT_TRUE(::CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                                 &startup, &information))
        << line << ", error " << ::GetLastError();
    THandle(information.hThread).Reset();
    Process_.Reset(information.hProcess);
  }
  ~TVelcopy() { Kill(); }

  DWORD Wait() {
    DWORD code = STILL_ACTIVE;
    EXPECT_TRUE(test::WaitUntil(
        [&] { return ::GetExitCodeProcess(Process_.Get(), &code) && code != STILL_ACTIVE; },
        120'000))
        << Output();
    return code;
  }
  std::string Output() const { return test::ReadFileBytes(Output_); }
  bool Says(const std::string& Text) const {
    return test::WaitUntil([&] { return Output().find(Text) != std::string::npos; });
  }
  void Kill() {
    ::TerminateProcess(Process_.Get(), 99);
    ::WaitForSingleObject(Process_.Get(), INFINITE);
  }

 private:
  const std::string Output_;
  THandle Process_;
};

bool Exists(const std::string& Name) {
  return ::GetFileAttributesA(Name.c_str()) != INVALID_FILE_ATTRIBUTES;
}

int64_t SizeOf(const std::string& Name) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!::GetFileAttributesExA(Name.c_str(), GetFileExInfoStandard, &data)) return -1;
  return (int64_t{data.nFileSizeHigh} << 32) + data.nFileSizeLow;
}

std::string RandomBytes(size_t Size) {
  std::mt19937 random(static_cast<unsigned>(Size));
  std::string bytes(Size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

TEST(Velcopy, CopiesFilesBothWaysAtOnce) {
  const test::TTemporaryFolder folder;
  const struct {
    size_t Size;
    const char* Receiver;
    const char* Sender;
    int Directions;
  } cases[] = {{0, "", "", 1},
               {1, "--size 1024", "--block 1", 1},
               {100'000, "--size 10000", "--block 4096", 1},
               {2 << 20, "", "--block 4096 --progress bar", 2},
               {(5 << 20) + 7, "", "--block 1048576", 2}};
  for (const auto& c : cases) {
    SCOPED_TRACE(Format("%u bytes, %s %s", static_cast<unsigned>(c.Size), c.Receiver, c.Sender));
    const std::string from = folder.File("from"), bytes = RandomBytes(c.Size);
    test::WriteFileBytes(from, bytes);
    std::vector<std::unique_ptr<TVelcopy>> programs;
    std::vector<std::string> copies;
    for (int i = 0; i < c.Directions; ++i) {
      const std::string address = "shm:" + test::UniqueName("velcopy-");
      copies.push_back(folder.File(test::UniqueName("to-")));
      auto receiver = std::make_unique<TVelcopy>(
          folder, "receive " + address + " " + copies.back() + " " + c.Receiver);
      ASSERT_TRUE(receiver->Says("waiting for a sender on " + address)) << receiver->Output();
      programs.push_back(std::move(receiver));
      programs.push_back(
          std::make_unique<TVelcopy>(folder, "send " + address + " " + from + " " + c.Sender));
    }
    std::string check;
    for (const auto& program : programs) {
      EXPECT_EQ(program->Wait(), 0u) << program->Output();
      const std::string output = program->Output();
      const size_t at = output.find("CRC-32 ");
      ASSERT_NE(at, std::string::npos) << output;
      if (check.empty()) check = output.substr(at, 15);
      EXPECT_EQ(output.substr(at, 15), check);
    }
    for (const std::string& copy : copies) {
      EXPECT_TRUE(test::ReadFileBytes(copy) == bytes);
      EXPECT_FALSE(Exists(copy + ".part"));
    }
  }
}

TEST(Velcopy, PrintsThePublishedCheck) {
  const test::TTemporaryFolder folder;
  test::WriteFileBytes(folder.File("from"), "123456789");
  const std::string address = "shm:" + test::UniqueName("velcopy-");
  TVelcopy receiver(folder, "receive " + address + " " + folder.File("to"));
  ASSERT_TRUE(receiver.Says("waiting"));
  TVelcopy sender(folder, "send " + address + " " + folder.File("from"));
  EXPECT_EQ(sender.Wait(), 0u);
  // CRC-32/ISO-HDLC, the check value of its published catalogue entry.
  EXPECT_NE(sender.Output().find("sent 9 bytes, CRC-32 CBF43926"), std::string::npos)
      << sender.Output();
}

TEST(Velcopy, RefusesBadInputWithOneLine) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("from"), to = folder.File("to"),
                    used = test::UniqueName("velcopy-used-");
  test::WriteFileBytes(file, "x");
  TVelcopy receiver(folder, "receive shm:" + used + " " + folder.File("other") + " --size 2000");
  ASSERT_TRUE(receiver.Says("waiting"));
  const struct {
    std::string Arguments, Message;
  } cases[] = {
      {"send shm:velcopy-nobody " + file, "there is no receiver on shm:velcopy-nobody"},
      {"send shm:velcopy-nobody " + folder.File("none"), "Cannot open file"},
      {"send shm: " + file, "is no address"},
      {"send pipe:x " + file, "\"pipe\" is no kind of channel"},
      {"send shm:" + used + " " + file + " --block 0", "--block must be a number from 1"},
      {"receive shm:" + used + " " + to, "is in use by another receiver"},
      {"receive shm:velcopy-x " + to + " --size 0", "--size must be a number from 1024"},
      {"receive shm:velcopy-x " + to + " --size -5", "--size must be a number from 1024"},
      {"receive shm:velcopy-x " + to + " --size 9999999999", "--size must be a number from 1024"},
      {"receive shm:velcopy-x " + to + " --size", "--size needs a value"},
      {"receive shm:velcopy-x " + to + " --fast", "unknown option --fast"},
      {"receive shm:velcopy-x " + folder.File("no\\such\\to"), "Cannot create file"},
      {"receive shm:velcopy-x", "say what to do"},
      // This one reaches the receiver, which ends with it.
      {"send shm:" + used + " " + file + " --block 2000", "blocks of 2000 bytes do not fit"}};
  for (const auto& c : cases) {
    TVelcopy program(folder, c.Arguments);
    EXPECT_EQ(program.Wait(), 1u) << c.Arguments;
    EXPECT_EQ(program.Output().find("velcopy: "), 0u) << program.Output();
    EXPECT_NE(program.Output().find(c.Message), std::string::npos) << program.Output();
  }
  EXPECT_EQ(receiver.Wait(), 1u);
  EXPECT_NE(receiver.Output().find("the sender gave up: blocks of 2000 bytes"), std::string::npos)
      << receiver.Output();
  for (const char* name : {"to", "to.part", "other", "other.part"})
    EXPECT_FALSE(Exists(folder.File(name))) << name;
}

TEST(Velcopy, EndsWhenTheOtherSideIsKilled) {
  const test::TTemporaryFolder folder;
  const std::string from = folder.File("from"), to = folder.File("to");
  {
    const THandle file(
        ::CreateFileA(from.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    ASSERT_EQ(::SetFilePointer(file.Get(), 1 << 30, nullptr, FILE_BEGIN), 1u << 30);
    ASSERT_TRUE(::SetEndOfFile(file.Get()));
  }
  for (const bool killReceiver : {true, false}) {
    const std::string address = "shm:" + test::UniqueName("velcopy-");
    TVelcopy receiver(folder, "receive " + address + " " + to);
    ASSERT_TRUE(receiver.Says("waiting"));
    TVelcopy sender(folder, "send " + address + " " + from + " --block 4096");
    ASSERT_TRUE(test::WaitUntil([&] { return SizeOf(to + ".part") > 0; }))
        << receiver.Output() << sender.Output();
    (killReceiver ? receiver : sender).Kill();
    TVelcopy& survivor = killReceiver ? sender : receiver;
    EXPECT_EQ(survivor.Wait(), 1u);
    EXPECT_NE(
        survivor.Output().find(killReceiver ? "velcopy: the receiver has been silent for 8 seconds"
                                            : "velcopy: the sender has been silent for 8 seconds"),
        std::string::npos)
        << survivor.Output();
    EXPECT_FALSE(Exists(to));
    EXPECT_EQ(Exists(to + ".part"), killReceiver);  // the survivor cleans up; the killed can't
  }
}

}  // namespace
}  // namespace velox
