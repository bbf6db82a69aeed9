// Prints the words that a text has most often, and how many words it has of each length:
//
//     velwords FILE [COUNT]
//
// Words are runs of letters; their case does not count. An object array holds them, sorted by text
// so that each is found by halving; a secondary index is the same array in the order of frequency.
// The lengths are counted in a balanced tree.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "examples/support/whole_file.hpp"
#include "velox/containers/velAVLTree.hpp"
#include "velox/containers/velObjArray.hpp"

namespace {

using namespace velox;

struct TWord : TObject {
  std::string Text;
  int32_t Times = 1;
};

int32_t CompareTexts(TObject* A, TObject* B) {
  return static_cast<TWord*>(A)->Text.compare(static_cast<TWord*>(B)->Text);
}

int32_t CompareTimes(TObject* A, TObject* B) {
  const int32_t times = static_cast<TWord*>(B)->Times - static_cast<TWord*>(A)->Times;
  return times != 0 ? times : CompareTexts(A, B);
}

class TStatistics {
 public:
  TStatistics() {
    Words_.SetSharedObjects(false);  // the array frees what it drops
    Words_.CompareRoutine = TObjectCompareRoutine::Bind<&CompareTexts>();
    Words_.SetSorted(true);
  }

  void Add(const std::string& Text) {
    auto word = std::make_unique<TWord>();
    word->Text = Text;
    int32_t index = 0;
    if (Words_.FindItem(word.get(), index)) {
      ++static_cast<TWord*>(Words_.GetItems(index))->Times;
    } else if (Words_.Add(word.get())) {
      static_cast<void>(word.release());
    }
    const auto length = static_cast<int32_t>(Text.size());
    int32_t count = 0;
    Lengths_.Search(&length, &count);  // leaves it alone when there is none
    ++count;
    Lengths_.Add(&length, &count);
  }

  void Print(int32_t Count) {
    TObjectArraySecondaryIndex byTimes(&Words_);
    byTimes.OnCompare = TObjectCompareRoutine::Bind<&CompareTimes>();
    byTimes.UpdateIndex();
    for (int32_t i = 0; i < std::min(Count, byTimes.GetCount()); ++i) {
      const auto* const word = static_cast<TWord*>(byTimes.GetOrderedItems(i));
      std::printf("%6d  %s\n", word->Times, word->Text.c_str());
    }
    std::printf("%d different words; by length:\n", Words_.GetCount());
    Lengths_.LeftPass(TAVLIterationRoutine::Bind<&TStatistics::PrintLength>(this), nullptr);
  }

 private:
  void PrintLength(TObject*, const void* Key, const void* Data, void*) {
    const int32_t length = *static_cast<const int32_t*>(Key);
    std::printf("%6d  of %d\n", *static_cast<const int32_t*>(Data), length);
  }

  TObjectArray Words_{TClass::Of<TWord>()};
  TAVLTree Lengths_{sizeof(int32_t)};  // by int32_t: how many words have that length
};

void Count(const std::string& File, int32_t Most) {
  TStatistics statistics;
  std::string word;
  std::vector<uint8_t> bytes = example::ReadWholeFile(File);
  bytes.push_back(' ');  // ends the last word
  for (const uint8_t byte : bytes) {
    if (std::isalpha(byte)) {
      word += static_cast<char>(std::tolower(byte));
    } else if (!word.empty()) {
      statistics.Add(word);
      word.clear();
    }
  }
  statistics.Print(Most);
}

}  // namespace

int main(int argc, char** argv) try {
  const bool help = argc == 2 && std::string(argv[1]) == "--help";
  const int most = argc == 3 ? std::atoi(argv[2]) : 10;
  if (help || argc < 2 || argc > 3 || most < 1) {
    std::fputs("usage: velwords FILE [COUNT]\n", help ? stdout : stderr);
    return help ? 0 : 1;
  }
  Count(argv[1], most);
  if (std::fflush(stdout) != 0) throw Exception("Cannot write to the standard output");
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "velwords: %s\n", e.what());
  return 1;
}
