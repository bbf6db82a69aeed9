#include "velox/containers/velCyclicBuffer.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tests/support/message_of.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

using test::MessageOf;
using TBytes = std::vector<uint8_t>;
using TRings = std::vector<TCyclicBuffer*>;

int32_t Write(TCyclicBuffer& Ring, const std::string& Text) {
  auto count = static_cast<int32_t>(Text.size()) / Ring.GetItemSize();
  Ring.WriteData(Text.data(), count);
  return count;
}

std::string Read(TCyclicBuffer& Ring, int32_t Count) {
  std::string text(static_cast<size_t>(Count * Ring.GetItemSize()), '?');
  Ring.ReadData(text.data(), Count);
  text.resize(static_cast<size_t>(Count * Ring.GetItemSize()));
  return text;
}

/// Reads and writes at random, through two objects when the ring is shared, against a deque that
/// drops its oldest.
void CompareWithModel(TCyclicBuffer& Writer, TCyclicBuffer& Reader, bool Overwritable,
                      int Operations, unsigned Seed) {
  std::mt19937 random(Seed);
  std::deque<uint8_t> model;
  const auto item = static_cast<size_t>(Writer.GetItemSize());
  const auto room = static_cast<size_t>(Writer.GetSize() - 1);
  Writer.SetOverwritable(Overwritable);
  TBytes bytes((room + 3) * item);
  uint8_t next = 0;
  for (int i = 0; i < Operations; ++i) {
    const size_t asked = random() % (room + 4);
    auto count = static_cast<int32_t>(asked);
    if (random() % 2 == 0) {
      for (uint8_t& byte : bytes) byte = next++;
      const size_t free = Overwritable ? room : room - model.size() / item;
      Writer.WriteData(bytes.data(), count);
      ASSERT_EQ(static_cast<size_t>(count), std::min(asked, free)) << i;
      model.insert(model.end(), bytes.begin(),
                   bytes.begin() + static_cast<ptrdiff_t>(item) * count);
      while (model.size() > room * item) model.pop_front();
    } else {
      Reader.ReadData(bytes.data(), count);
      ASSERT_EQ(static_cast<size_t>(count), std::min(asked, model.size() / item)) << i;
      const auto end = model.begin() + static_cast<ptrdiff_t>(item) * count;
      ASSERT_TRUE(std::equal(model.begin(), end, bytes.begin())) << i;
      model.erase(model.begin(), end);
    }
    ASSERT_EQ(static_cast<size_t>(Reader.GetCount()), model.size() / item) << i;
    ASSERT_EQ(Reader.GetEmpty(), model.empty()) << i;
    const size_t available = room - model.size() / item;
    ASSERT_EQ(static_cast<size_t>(Writer.GetAvailable()), available) << i;
    ASSERT_EQ(static_cast<size_t>(Writer.GetMaximalAvailable()), Overwritable ? room : available);
  }
}

TEST(CyclicBuffer, BehavesAsItsModel) {
  unsigned seed = 0;
  for (const bool overwritable : {false, true}) {
    for (const int32_t size : {2, 3, 7, 16}) {
      TInternalCyclicBuffer internal;
      internal.SetSize(size);
      CompareWithModel(internal, internal, overwritable, 40'000, ++seed);
      for (const int32_t item : {1, 3}) {
        TExternalCyclicBuffer external;
        TBytes storage(static_cast<size_t>(size * item));  // exactly, for the sanitizer
        external.SetItemSize(item);
        external.SetBuffer(storage.data(), size);
        CompareWithModel(external, external, overwritable, 30'000, ++seed);
      }
      std::vector<uint32_t> block(3 + static_cast<size_t>(size + 3) / 4);
      TSharedCyclicBuffer writer(true);
      TSharedCyclicBuffer reader(false);
      writer.SetBuffer(block.data(), size + 12);
      reader.SetBuffer(block.data(), 0);
      CompareWithModel(writer, reader, overwritable, 25'000, ++seed);
    }
  }
}

TEST(CyclicBuffer, NeedsStorageForAnythingButNothing) {
  const std::string unallocated = "Buffer have not been allocated";
  TInternalCyclicBuffer internal;
  TExternalCyclicBuffer external;
  TSharedCyclicBuffer shared(true);
  for (TCyclicBuffer* ring : TRings{&internal, &external, &shared}) {
    int32_t none = 0;
    ring->ReadData(nullptr, none);
    ring->WriteData(nullptr, none);
    EXPECT_EQ(MessageOf([&] { Read(*ring, 1); }), unallocated);
    EXPECT_EQ(MessageOf([&] { Write(*ring, "a"); }), unallocated);
    EXPECT_EQ(ring->GetCount(), 0);
    EXPECT_TRUE(ring->GetEmpty());
    int32_t negative = -1;
    EXPECT_EQ(MessageOf([&] { ring->ReadData(&none, negative); }), "Incorrect parameters");
    EXPECT_EQ(MessageOf([&] { ring->WriteData(&none, negative); }), "Incorrect parameters");
  }
  EXPECT_EQ(MessageOf([&] { external.SetSize(8); }), "Cannot set size");
  EXPECT_EQ(MessageOf([&] { shared.SetSize(8); }), "Cannot set size");
  EXPECT_EQ(MessageOf([&] { internal.SetSize(-1); }), "Incorrect parameters");
  EXPECT_EQ(MessageOf([&] { external.SetItemSize(0); }), "Incorrect parameters");
  uint32_t block[3] = {};
  EXPECT_EQ(MessageOf([&] { shared.SetBuffer(block, 11); }), "Incorrect parameters");
}

TEST(InternalCyclicBuffer, AnotherSizeDiscardsTheContents) {
  TInternalCyclicBuffer ring;
  ring.SetSize(8);
  Write(ring, "abc");
  ring.SetSize(8);
  EXPECT_EQ(ring.GetCount(), 3);
  ring.SetSize(9);
  EXPECT_EQ(ring.GetCount(), 0);
  Write(ring, "abc");
  ring.SetSize(0);
  EXPECT_EQ(MessageOf([&] { Read(ring, 1); }), "Buffer have not been allocated");
}

TEST(CyclicBuffer, SizeIsBytesOfStorageAlsoForLargerItems) {
  std::vector<uint32_t> block(3 + 4);  // exactly, for the sanitizer
  TInternalCyclicBuffer internal;
  TSharedCyclicBuffer shared(true);
  internal.SetItemSize(4);
  shared.SetItemSize(4);
  internal.SetSize(16);
  shared.SetBuffer(block.data(), 12 + 16);
  for (TCyclicBuffer* ring : TRings{&internal, &shared}) {
    EXPECT_EQ(MessageOf([&] { ring->SetItemSize(2); }), "Already Allocated");
    EXPECT_EQ(ring->GetSize(), 16);
    EXPECT_EQ(ring->GetAvailable(), 15);
    EXPECT_EQ(Write(*ring, "aaaabbbbccccdddd"), 4);
    EXPECT_EQ(MessageOf([&] { Write(*ring, "eeee"); }), "Buffer is too small for its items");
    EXPECT_EQ(Read(*ring, 9), "aaaabbbbccccdddd");
  }
  // Positions that the capacity allows, but not the storage.
  block[1] = block[2] = 17;
  EXPECT_EQ(MessageOf([&] { Write(shared, "eeee"); }), "Buffer is too small for its items");
  block[2] = 24;
  EXPECT_EQ(MessageOf([&] { Read(shared, 1); }), "Buffer is too small for its items");
}

TEST(CyclicBuffer, EachOperationTakesTheLockOnceAndGivesItBack) {
  class TCountingBuffer : public TExternalCyclicBuffer {
   public:
    void Lock() override { Outermost += Depth++ == 0; }
    void Unlock() override { --Depth; }
    uint8_t* GetHead() override { return Damaged ? nullptr : TExternalCyclicBuffer::GetHead(); }
    bool Damaged = false;
    int Outermost = 0;
    int Depth = 0;
  };
  TCountingBuffer ring;
  char storage[8] = "";
  ring.SetBuffer(storage, 8);
  char byte = 0;
  int32_t count = 1;
  struct {
    const char* Name;
    std::function<void()> Run;
    int Locks;
  } const operations[] = {
      {"ReadData", [&] { ring.ReadData(&byte, count = 1); }, 1},
      {"WriteData", [&] { ring.WriteData(&byte, count = 1); }, 1},
      {"GetCount", [&] { ring.GetCount(); }, 1},
      {"GetEmpty", [&] { ring.GetEmpty(); }, 1},
      {"GetAvailable", [&] { ring.GetAvailable(); }, 1},
      {"ReadData of nothing", [&] { ring.ReadData(&byte, count = 0); }, 0},
      {"WriteData of nothing", [&] { ring.WriteData(&byte, count = 0); }, 0},
  };
  for (const auto& operation : operations) {
    for (const bool damaged : {false, true}) {
      ring.Damaged = damaged;
      ring.Outermost = 0;
      EXPECT_EQ(MessageOf(operation.Run) != "nothing raised", damaged && operation.Locks > 0)
          << operation.Name;
      EXPECT_EQ(ring.Outermost, operation.Locks) << operation.Name;
      EXPECT_EQ(ring.Depth, 0) << operation.Name;
    }
  }
}

using TWords = std::array<uint32_t, 3>;  // size, head, tail

/// A block of size 4 as a peer may leave it.
struct TBlock {
  TWords Words = {4, 0, 0};
  char Data[4] = {'a', 'b', 'c', 'd'};
};

TEST(SharedCyclicBuffer, WordsStandAtTheirPlaces) {
  TBlock block{{77, 77, 77}};
  TSharedCyclicBuffer creator(true);
  creator.SetBuffer(&block, sizeof block);
  EXPECT_EQ(block.Words, (TWords{4, 0, 0}));
  Write(creator, "wxy");
  EXPECT_EQ(std::string(block.Data, 4), "wxyd");
  EXPECT_EQ(Read(creator, 2), "wx");
  EXPECT_EQ(block.Words, (TWords{4, 2, 3}));
  EXPECT_EQ(creator.GetHead() - reinterpret_cast<uint8_t*>(&block), 14);

  TSharedCyclicBuffer opener(false);
  opener.SetBuffer(&block, 3);
  EXPECT_EQ(opener.GetSize(), 4);
  EXPECT_EQ(Read(opener, 9), "y");
  Write(opener, "z");  // a position at the end stays there
  EXPECT_EQ(block.Words, (TWords{4, 3, 4}));
  EXPECT_EQ(Read(creator, 9), "z");
  EXPECT_EQ(block.Words, (TWords{4, 4, 4}));
  Write(creator, "q");
  EXPECT_EQ(block.Words, (TWords{4, 0, 1}));
}

TEST(SharedCyclicBuffer, OverwritingUpToTheEndLeavesTheHeadOneItemBehindIt) {
  TBlock block;
  TSharedCyclicBuffer ring(true);
  ring.SetBuffer(&block, sizeof block);
  ring.SetOverwritable(true);
  Write(ring, "abc");
  Write(ring, "d");
  EXPECT_EQ(block.Words, (TWords{4, 5, 4}));
  EXPECT_EQ(ring.GetCount(), 3);
  EXPECT_EQ(Read(ring, 1), "b");
  EXPECT_EQ(block.Words, (TWords{4, 2, 4}));
  EXPECT_EQ(Read(ring, 9), "cd");
}

/// Ends, like its process, when the new data has been copied and is not counted yet.
class TDyingWriter : public TSharedCyclicBuffer {
 public:
  using TSharedCyclicBuffer::TSharedCyclicBuffer;

 protected:
  void SetTail(uint8_t* Value) override {
    if (Value != GetBuffer()) throw Exception("killed");  // (the start is set when it is created)
    TSharedCyclicBuffer::SetTail(Value);
  }
};

TEST(SharedCyclicBuffer, AWriterThatDiesLeavesTheNewestItemsThatItDidNotOverwrite) {
  const std::string items = "abcdefghijklmnopqrstuvwxyz";
  for (uint32_t start = 0; start <= 16; ++start) {
    for (uint32_t old = 0; old < 16; ++old) {
      for (uint32_t written = 1; written < 16; ++written) {
        struct {
          TWords Words = {16, 0, 0};
          char Data[16];
        } block;
        TSharedCyclicBuffer ring(true);
        ring.SetBuffer(&block, sizeof block);
        ring.SetOverwritable(true);
        block.Words[1] = block.Words[2] = start;
        Write(ring, items.substr(0, old));
        TDyingWriter writer(false);
        writer.SetBuffer(&block, 0);
        writer.SetOverwritable(true);
        MessageOf([&] { Write(writer, std::string(written, '!')); });
        const uint32_t left = std::min(old, 15 - written);
        EXPECT_EQ(Read(ring, 16), items.substr(old - left, left))
            << start << ' ' << old << ' ' << written;
      }
    }
  }
}

TEST(SharedCyclicBuffer, BrokenWordsAreRefused) {
  const std::string damaged = "Shared buffer is damaged";
  const TWords cases[] = {{4, 6, 0},          {4, 0, 5},          {4, 0xFFFFFFFF, 0},
                          {4, 0, 0x80000000}, {0x80000000, 0, 0}, {0xFFFFFFFF, 1, 1}};
  for (const TWords& words : cases) {
    TBlock block{words};
    TSharedCyclicBuffer ring(false);
    ring.SetBuffer(&block, 0);
    EXPECT_EQ(MessageOf([&] { Read(ring, 1); }), damaged);
    EXPECT_EQ(MessageOf([&] { Write(ring, "x"); }), damaged);
    EXPECT_EQ(MessageOf([&] { ring.GetCount(); }), damaged);
    EXPECT_EQ(std::string(block.Data, 4), "abcd");
  }
  // The creator knows how long the block is.
  TBlock grown;
  TSharedCyclicBuffer creator(true);
  creator.SetBuffer(&grown, sizeof grown);
  grown.Words[0] = 5;
  EXPECT_EQ(MessageOf([&] { Write(creator, "x"); }), damaged);
}

}  // namespace
}  // namespace velox
