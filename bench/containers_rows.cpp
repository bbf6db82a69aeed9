// Sorted object array, AVL tree and ring buffer against the standard library's and Boost's.

#include <algorithm>
#include <boost/circular_buffer.hpp>
#include <map>
#include <random>

#include "bench/harness.hpp"
#include "velox/containers/velAVLTree.hpp"
#include "velox/containers/velCyclicBuffer.hpp"
#include "velox/containers/velObjArray.hpp"
#include "velox/runtime/velFormat.hpp"

namespace bench {
namespace {

using namespace velox;

/// Positions below Count in an order without period, which the processor's branch prediction can't
/// learn by heart.
class TPick {
 public:
  explicit TPick(size_t Count) : Count_(Count) {}
  size_t operator()() {
    State_ = State_ * 6364136223846793005u + 1442695040888963407u;
    return static_cast<size_t>(((State_ >> 32) * Count_) >> 32);
  }

 private:
  uint64_t State_ = 1;
  uint64_t Count_;
};

struct TItem : TObject {
  explicit TItem(int32_t AKey) : Key(AKey) {}
  int32_t Key;
};

int32_t CompareItems(TObject* A, TObject* B) {
  const int32_t a = static_cast<TItem*>(A)->Key;
  const int32_t b = static_cast<TItem*>(B)->Key;
  return a < b ? -1 : a > b;
}

bool ItemLess(TItem* A, TItem* B) { return A->Key < B->Key; }

// The order is chosen while the program runs, as it is of an object array.
bool (*volatile ChosenOrder)(TItem*, TItem*) = &ItemLess;

std::vector<int32_t> ShuffledKeys(int32_t Count) {
  std::vector<int32_t> keys(static_cast<size_t>(Count));
  for (int32_t i = 0; i < Count; ++i) keys[static_cast<size_t>(i)] = i * 2;
  std::shuffle(keys.begin(), keys.end(), std::mt19937(3));
  return keys;
}

struct TItems {
  explicit TItems(int32_t Count) {
    for (const int32_t key : ShuffledKeys(Count)) Items.push_back(std::make_unique<TItem>(key));
  }
  std::vector<std::unique_ptr<TItem>> Items;
};

void FillArray(TObjectArray& Array, const TItems& Items) {
  Array.CompareRoutine = TObjectCompareRoutine::Bind<&CompareItems>();
  Array.SetSorted(true);
  for (const auto& item : Items.Items) Array.Add(item.get());
}

void FillVector(std::vector<TItem*>& Vector, const TItems& Items) {
  for (const auto& item : Items.Items) {
    Vector.insert(std::lower_bound(Vector.begin(), Vector.end(), item.get(), ChosenOrder),
                  item.get());
  }
}

void FindRow(int32_t Count) {
  const TItems items(Count);
  TObjectArray array(TClass::Of<TItem>());
  std::vector<TItem*> vector;
  FillArray(array, items);
  FillVector(vector, items);
  TPick pick(items.Items.size());
  const auto ours = [&] {
    int32_t index = 0;
    array.FindItem(items.Items[pick()].get(), index);
    return index;
  };
  const auto theirs = [&] {
    return std::lower_bound(vector.begin(), vector.end(), items.Items[pick()].get(), ChosenOrder) -
           vector.begin();
  };
  Compare({Format("sorted object array, %d items: find", Count), "std::vector, lower_bound", 0.8},
          Repeat(ours), Repeat(theirs));
}

void AddRow(int32_t Count) {
  const TItems items(Count);
  const auto ours = [&] {
    TObjectArray array(TClass::Of<TItem>());
    FillArray(array, items);
    return array.GetCount();
  };
  const auto theirs = [&] {
    std::vector<TItem*> vector;
    FillVector(vector, items);
    return vector.size();
  };
  Compare({Format("sorted object array: add %d items", Count),
           "std::vector, lower_bound and insert", 0.8},
          Repeat(ours), Repeat(theirs));
}

const TGroup Arrays("object array", [] {
  FindRow(1000);
  FindRow(100'000);
  AddRow(1000);
  AddRow(100'000);
});

void TreeRows(int32_t Count) {
  const std::vector<int32_t> keys = ShuffledKeys(Count);
  const auto size = static_cast<size_t>(Count);
  const auto fill = [&](TAVLTree& Tree) {
    for (const int32_t key : keys) Tree.Add(&key, &key);
  };
  const auto fillMap = [&](std::map<int32_t, int32_t>& Map) {
    for (const int32_t key : keys) Map.emplace(key, key);
  };
  {
    TAVLTree tree(sizeof(int32_t));
    std::map<int32_t, int32_t> map;
    fill(tree);
    fillMap(map);
    TPick pick(size);
    const auto ours = [&] {
      int32_t data = 0;
      tree.Search(&keys[pick()], &data);
      return data;
    };
    const auto theirs = [&] { return map.find(keys[pick()])->second; };
    Compare({Format("AVL tree, %d integer keys: search", Count), "std::map, find", 1.0},
            Repeat(ours), Repeat(theirs));
  }
  // The trees are filled or emptied as a whole in the timed part; the opposite is not timed.
  const double units = Count;
  Compare(
      {Format("AVL tree: add %d integer keys", Count), "std::map, emplace", 0.9, units, units},
      [&](TMeter Meter) {
        std::vector<std::unique_ptr<TAVLTree>> trees;
        for (int i = 0; i < Meter.runs(); ++i)
          trees.push_back(std::make_unique<TAVLTree>(int32_t{4}));
        Meter.measure([&](int Run) { fill(*trees[static_cast<size_t>(Run)]); });
      },
      [&](TMeter Meter) {
        std::vector<std::map<int32_t, int32_t>> maps(static_cast<size_t>(Meter.runs()));
        Meter.measure([&](int Run) { fillMap(maps[static_cast<size_t>(Run)]); });
      });
  Compare(
      {Format("AVL tree: remove %d integer keys", Count), "std::map, erase", 0.9, units, units},
      [&](TMeter Meter) {
        std::vector<std::unique_ptr<TAVLTree>> trees;
        for (int i = 0; i < Meter.runs(); ++i) {
          trees.push_back(std::make_unique<TAVLTree>(int32_t{4}));
          fill(*trees.back());
        }
        Meter.measure([&](int Run) {
          for (const int32_t key : keys) trees[static_cast<size_t>(Run)]->Remove(&key);
        });
      },
      [&](TMeter Meter) {
        std::vector<std::map<int32_t, int32_t>> maps(static_cast<size_t>(Meter.runs()));
        for (auto& map : maps) fillMap(map);
        Meter.measure([&](int Run) {
          for (const int32_t key : keys) maps[static_cast<size_t>(Run)].erase(key);
        });
      });
}

const TGroup Trees("AVL tree", [] {
  TreeRows(1000);
  TreeRows(100'000);
});
const TGroup LargeTrees("AVL tree, large", [] { TreeRows(1'000'000); });

/// Writes pieces into a ring until it is full, then reads them all.
void RingRow(int32_t Piece, double Target) {
  constexpr int32_t Size = 1 << 16;
  const int32_t pieces = Size / Piece;
  const auto length = static_cast<size_t>(Piece);
  std::vector<uint8_t> data(length, 7);
  TInternalCyclicBuffer ring;
  ring.SetSize(Size);
  boost::circular_buffer<uint8_t> circular(Size);
  const auto ours = [&] {
    for (int32_t i = 0; i < pieces; ++i) {
      int32_t count = Piece;
      ring.WriteData(data.data(), count);
    }
    for (int32_t i = 0; i < pieces; ++i) {
      int32_t count = Piece;
      ring.ReadData(data.data(), count);
    }
    return ring.GetCount();
  };
  const auto theirs = [&] {
    for (int32_t i = 0; i < pieces; ++i) circular.insert(circular.end(), data.begin(), data.end());
    for (int32_t i = 0; i < pieces; ++i) {
      std::copy_n(circular.begin(), length, data.begin());
      circular.erase_begin(length);
    }
    return circular.size();
  };
  Compare({Format("ring buffer in memory: 64 KiB through it in pieces of %d bytes", Piece),
           "boost::circular_buffer", Target},
          Repeat(ours), Repeat(theirs));
}

const TGroup Rings("ring buffer", [] {
  RingRow(64, 2);
  RingRow(4096, 10);
});

}  // namespace
}  // namespace bench
