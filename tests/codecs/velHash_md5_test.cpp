#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/support.hpp"
#include "velox/codecs/velHash.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFileStream.hpp"

namespace velox {
namespace {

std::string TextOf(const TMD5Digest& Digest) { return TMD5::ToString(Digest); }

/// A hundred thousand bytes of 0xFF, which take four blocks of a stream, and their digest by
/// Python's hashlib.
const std::string Ones(100'000, '\xFF');
constexpr char OnesDigest[] = "E6083D97D43621163E0F9673BFF51596";

TEST(MD5, GivesTheDigestsOfTheStandard) {
  TMD5 md5;                                     // one object for all: each calculation starts anew
  for (const std::string text : {"abc", ""}) {  // RFC 1321, A.5
    TMD5Digest digests[2];
    md5.CalculateForString(text, digests[0]);
    TMD5::CalculateForStringThreadSafe(text, digests[1]);
    for (const TMD5Digest& digest : digests) {
      EXPECT_EQ(TextOf(digest), text.empty() ? "D41D8CD98F00B204E9800998ECF8427E"
                                             : "900150983CD24FB0D6963F7D28E17F72");
    }
  }
}

TEST(MD5, TakesDataInPieces) {
  TMD5 md5;
  md5.Update("mess", 4);
  md5.Update("", 0);
  md5.Update("age digest", 10);
  TMD5Digest digest;
  md5.GetCurrentMD5(digest);
  EXPECT_EQ(TextOf(digest), "F96B697D7CB7938D525A2F31AAF161D0");
  EXPECT_THROW(md5.Update("more", 4), EOSError) << "the session is over";
  EXPECT_THROW(md5.Update("", -1), Exception);
  md5.Initialize();
  md5.GetCurrentMD5(digest);
  EXPECT_EQ(TextOf(digest), "D41D8CD98F00B204E9800998ECF8427E");
}

TEST(MD5, FailsWithoutASession) {
  TMD5 md5;
  md5.Finalize();
  TMD5Digest digest;
  EXPECT_THROW(md5.Update("a", 1), EOSError);
  EXPECT_THROW(md5.GetCurrentMD5(digest), EOSError);
}

TEST(MD5, ReadsAStreamFromItsPosition) {
  TMemoryStream stream(Ones.data(), static_cast<int32_t>(Ones.size()));
  TMD5Digest digest;
  TMD5::GetInstance()->CalculateForStream(stream, digest);
  EXPECT_EQ(TextOf(digest), OnesDigest);
  EXPECT_EQ(stream.GetPosition(), 100'000);

  TMemoryStream message("12abc", 5);
  message.SetPosition(2);
  TMD5::GetInstance()->CalculateForStream(message, digest);
  EXPECT_EQ(TextOf(digest), "900150983CD24FB0D6963F7D28E17F72");
}

TEST(MD5, ReadsFilesThatNobodyWrites) {
  const test::TTemporaryFolder folder;
  const std::string name = folder.File("ones.bin");
  TMD5 md5;
  TMD5Digest digest;
  EXPECT_THROW(md5.CalculateForFile(name, digest), EFOpenError);

  test::WriteFileBytes(name, Ones);
  {
    const TFileStream reader(name, TFileMode::fmOpenRead);
    md5.CalculateForFile(name, digest);
    EXPECT_EQ(TextOf(digest), OnesDigest);
  }
  const uint32_t handles = test::HandleCount();
  {
    const TFileStream writer(name, TFileMode::fmOpenReadWrite);
    EXPECT_THROW(md5.CalculateForFile(name, digest), EFOpenError);
  }
  md5.CalculateForFile(name, digest);
  EXPECT_LE(test::HandleCount(), handles) << "the file stays open";
}

TEST(MD5, ThreadsDoNotDisturbEachOther) {
  std::vector<std::string> digests(4);
  test::RunThreads(4, [&](int t) {
    TMD5Digest digest;
    std::string& result = digests[static_cast<size_t>(t)];
    for (int i = 0; i < 50 && (i == 0 || result == OnesDigest); ++i) {
      TMD5::CalculateThreadSafe(Ones.data(), static_cast<int32_t>(Ones.size()), digest);
      result = TextOf(digest);
    }
  });
  EXPECT_EQ(digests, std::vector<std::string>(4, OnesDigest));
}

}  // namespace
}  // namespace velox
