// The program velcopy, run as its users run it: two processes, their output, their exit codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <memory>
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

// An error is one line.
void ExpectError(const TVelcopy& Program, const std::string& Message) {
  const std::string output = Program.Output();
  const size_t at = output.find("velcopy: ");
  ASSERT_NE(at, std::string::npos) << output;
  EXPECT_NE(output.find(Message, at), std::string::npos) << output << "lacks: " << Message;
  EXPECT_EQ(output.find('\n', at), output.size() - 1) << output;
}

// The longest line, where the bar writes itself anew on one.
size_t Width(const std::string& Output) {
  size_t width = 0, start = 0;
  while (start < Output.size()) {
    const size_t end = std::min(Output.find_first_of("\r\n", start), Output.size());
    width = std::max(width, end - start);
    start = end + 1;
  }
  return width;
}

// A file that takes longer to copy than any case runs.
void MakeHugeFile(const std::string& Name) {
  const THandle file(
      ::CreateFileA(Name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
  ASSERT_EQ(::SetFilePointer(file.Get(), 1 << 30, nullptr, FILE_BEGIN), 1u << 30);
  ASSERT_TRUE(::SetEndOfFile(file.Get()));
}

bool Exists(const std::string& Name) {
  return ::GetFileAttributesA(Name.c_str()) != INVALID_FILE_ATTRIBUTES;
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
      EXPECT_EQ(output.find("100%") != std::string::npos, c.Size > 0) << output;
      EXPECT_LE(Width(output), 79u) << output;
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

TEST(Velcopy, PrintsItsUsage) {
  const test::TTemporaryFolder folder;
  TVelcopy program(folder, "--help");
  EXPECT_EQ(program.Wait(), 0u);
  EXPECT_EQ(program.Output().find("velcopy receive shm:NAME FILE"), 0u) << program.Output();
}

TEST(Velcopy, RefusesBadInputWithOneLine) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("from"), to = folder.File("to"),
                    used = test::UniqueName("velcopy-used-"),
                    foreign = test::UniqueName("velcopy-foreign-"),
                    held = test::UniqueName("velcopy-held-");
  test::WriteFileBytes(file, "x");
  test::WriteFileBytes(folder.File("other"), "good");
  const THandle memory(::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 2000,
                                            (foreign + "Write").c_str())),
      guard(::CreateEventA(nullptr, FALSE, FALSE, (held + "sender").c_str()));
  TVelcopy receiver(folder, "receive shm:" + used + " " + folder.File("other") + " --size 2000");
  ASSERT_TRUE(receiver.Says("waiting"));
  const struct {
    std::string Arguments, Message;
  } cases[] = {
      {"send shm:velcopy-nobody " + file, "there is no receiver on shm:velcopy-nobody"},
      {"send shm:velcopy-nobody " + folder.File("none"), "Cannot open file"},
      {"send shm: " + file, "is no address like shm:NAME; see velcopy --help"},
      {"send pipe:x " + file, "\"pipe\" is no kind of channel"},
      {"send shm:" + used + " " + file + " --block 0",
       "--block must be a number from 1 to 2147483647"},
      {"receive shm:" + used + " " + to, "shm:" + used + " is in use by another receiver"},
      {"receive shm:" + foreign + " " + to, "shm:" + foreign + " is in use by another program"},
      {"receive shm:" + held + " " + to, "shm:" + held + " is in use by a sender"},
      {"receive shm:velcopy\\no\\such " + to, "cannot open shm:velcopy\\no\\such: "},
      {"receive shm:velcopy-x " + to + " --size -5",
       "--size must be a number from 1024 to 2147483635, not \"-5\"; see velcopy --help"},
      {"receive shm:velcopy-x " + to + " --size 2147483636", "from 1024 to 2147483635"},
      {"receive shm:velcopy-x " + to + " --size 9999999999", "from 1024 to 2147483635"},
      {"receive shm:velcopy-x " + to + " --size", "--size needs a value; see velcopy --help"},
      {"receive shm:velcopy-x " + to + " --fast", "unknown option --fast; see velcopy --help"},
      {"receive shm:velcopy-x " + folder.File("no\\such\\to"), "Cannot create file"},
      {"", "neither send nor receive is given; see velcopy --help"},
      {"copy shm:velcopy-x " + to, "\"copy\" is neither send nor receive; see velcopy --help"},
      {"receive shm:velcopy-x", "receive needs an address and a file; see velcopy --help"},
      {"receive shm:velcopy-x " + to + " 1", "\"1\" is one argument too many"}};
  std::vector<std::unique_ptr<TVelcopy>> programs;
  for (const auto& c : cases) programs.push_back(std::make_unique<TVelcopy>(folder, c.Arguments));
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].Arguments);
    EXPECT_EQ(programs[i]->Wait(), 1u);
    ExpectError(*programs[i], "velcopy: ");
    ExpectError(*programs[i], cases[i].Message);
  }
  // This one reaches the receiver, which ends with it.
  TVelcopy sender(folder, "send shm:" + used + " " + file + " --block 2000");
  EXPECT_EQ(sender.Wait(), 1u);
  ExpectError(sender, "blocks of 2000 bytes do not fit");
  EXPECT_EQ(receiver.Wait(), 1u);
  ExpectError(receiver, "the sender gave up: blocks of 2000 bytes");
  EXPECT_EQ(test::ReadFileBytes(folder.File("other")), "good");
  for (const char* name : {"to", "to.part", "other.part"})
    EXPECT_FALSE(Exists(folder.File(name))) << name;
}

TEST(Velcopy, RefusesASecondSenderAndFinishesTheCopy) {
  const test::TTemporaryFolder folder;
  const std::string from = folder.File("from"), to = folder.File("to"),
                    bytes = RandomBytes(2 << 20);
  test::WriteFileBytes(from, bytes);
  const std::string address = "shm:" + test::UniqueName("velcopy-");
  TVelcopy receiver(folder, "receive " + address + " " + to);
  ASSERT_TRUE(receiver.Says("waiting"));
  const std::string send = "send " + address + " " + from + " --block 512";
  TVelcopy sender(folder, send);
  ASSERT_TRUE(sender.Says(" s left")) << sender.Output();
  TVelcopy second(folder, send);
  EXPECT_EQ(second.Wait(), 1u);
  ExpectError(second, address + " is in use by another sender");
  EXPECT_TRUE(Exists(to + ".part")) << "the copy was too short";
  EXPECT_EQ(sender.Wait(), 0u) << sender.Output();
  EXPECT_EQ(receiver.Wait(), 0u) << receiver.Output();
  EXPECT_TRUE(test::ReadFileBytes(to) == bytes);
}

TEST(Velcopy, EndsWhenTheOtherSideIsKilled) {
  const test::TTemporaryFolder folder;
  const std::string from = folder.File("from");
  MakeHugeFile(from);
  struct TCopy {
    TCopy(const test::TTemporaryFolder& Folder, const std::string& From, const std::string& To)
        : Receiver(Folder, "receive " + Address + " " + To) {
      EXPECT_TRUE(Receiver.Says("waiting"));
      Sender = std::make_unique<TVelcopy>(Folder, "send " + Address + " " + From + " --block 4096");
      // Both print lines, as their output is no console.
      EXPECT_TRUE(Receiver.Says(" s left")) << Receiver.Output();
      EXPECT_TRUE(Sender->Says(" s left")) << Sender->Output();
    }
    const std::string Address = "shm:" + test::UniqueName("velcopy-");
    TVelcopy Receiver;
    std::unique_ptr<TVelcopy> Sender;
  };
  for (const char* name : {"a", "b"}) test::WriteFileBytes(folder.File(name), "good");
  TCopy a(folder, from, folder.File("a"));
  a.Receiver.Kill();
  const ULONGLONG start = ::GetTickCount64();
  TCopy b(folder, from, folder.File("b"));
  b.Sender->Kill();
  EXPECT_EQ(a.Sender->Wait(), 1u);
  EXPECT_EQ(b.Receiver.Wait(), 1u);
  // 8 seconds, and time for a machine with other work.
  EXPECT_LT(::GetTickCount64() - start, 20'000u);
  ExpectError(*a.Sender, "the receiver has not responded for 8 seconds");
  ExpectError(b.Receiver, "the sender has not responded for 8 seconds");
  for (const char* name : {"a", "b"})
    EXPECT_EQ(test::ReadFileBytes(folder.File(name)), "good") << name;
  EXPECT_TRUE(Exists(folder.File("a.part")));  // the killed can't clean up
  EXPECT_FALSE(Exists(folder.File("b.part")));
}

}  // namespace
}  // namespace velox
