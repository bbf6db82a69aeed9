// Prints the words that a text has most often:
//
//     velwords FILE [COUNT]
//
// Words are runs of letters; their case does not count. An object array owns them, a balanced tree
// finds each by its text, and a secondary index of the array has them in the order of frequency.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "examples/support/standard_output.hpp"
#include "examples/support/whole_file.hpp"
#include "velox/containers/velAVLTree.hpp"
#include "velox/containers/velObjArray.hpp"

namespace {

using namespace velox;

struct TWord : TObject {
  explicit TWord(std::string AText) : Text(std::move(AText)) {}
  const std::string Text;
  int32_t Times = 1;
};

/// Keys are pointers to texts.
int32_t CompareKeys(const void* A, const void* B) {
  return (*static_cast<const std::string* const*>(A))
      ->compare(**static_cast<const std::string* const*>(B));
}

int32_t CompareTimes(TObject* A, TObject* B) {
  const auto *const a = static_cast<TWord*>(A), *const b = static_cast<TWord*>(B);
  return a->Times != b->Times ? b->Times - a->Times : a->Text.compare(b->Text);
}

class TStatistics {
 public:
  TStatistics() {
    Words_.SetSharedObjects(false);  // the array frees what it drops
  }

  void Add(const std::string& Text) {
    const std::string* key = &Text;
    TWord* known = nullptr;
    if (ByText_.Search(&key, &known)) {
      ++known->Times;
      return;
    }
    auto made = std::make_unique<TWord>(Text);
    if (!Words_.Add(made.get())) return;
    TWord* const word = made.release();
    key = &word->Text;  // lives as long as the word
    ByText_.Add(&key, &word);
  }

  void Print(int32_t Count) {
    TObjectArraySecondaryIndex byTimes(&Words_);
    byTimes.OnCompare = TObjectCompareRoutine::Bind<&CompareTimes>();
    byTimes.UpdateIndex();
    for (int32_t i = 0; i < std::min(Count, byTimes.GetCount()); ++i) {
      const auto* const word = static_cast<TWord*>(byTimes.GetOrderedItems(i));
      std::printf("%6d  %s\n", word->Times, word->Text.c_str());
    }
    std::printf("%d different words\n", Words_.GetCount());
  }

 private:
  TObjectArray Words_{TClass::Of<TWord>()};
  TAVLTree ByText_{sizeof(const std::string*), sizeof(TWord*),
                   TAVLTreeCompareRoutine::Bind<&CompareKeys>()};
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
  example::FinishOutput();
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "velwords: %s\n", e.what());
  return 1;
}
