#include "velox/containers/velAVLTree.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "velox/runtime/velException.hpp"
#include "velox/runtime/velMessages.hpp"

namespace velox {
namespace {

/// No tree that fits into memory is higher: a height of 92 takes more than 2^63 nodes.
constexpr int MaximalHeight = 92;

int32_t IntegerAt(const void* Address) noexcept {
  int32_t value;
  std::memcpy(&value, Address, sizeof value);
  return value;
}

int32_t Difference(int32_t A, int32_t B) noexcept {
  return static_cast<int32_t>(static_cast<uint32_t>(A) - static_cast<uint32_t>(B));
}

/// Calls Action with Size. Most keys and data are an integer or a pointer: Action is compiled for
/// these sizes, so that copying them is an instruction and no call.
template <class TAction>
void WithSize(int32_t Size, TAction Action) {
  if (Size == 4) return Action(std::integral_constant<size_t, 4>());
  if (Size == sizeof(void*)) return Action(std::integral_constant<size_t, sizeof(void*)>());
  if (Size > 0) Action(static_cast<size_t>(Size));
}

void Copy(void* To, const void* From, int32_t Size) {
  WithSize(Size, [=](auto bytes) { std::memmove(To, From, bytes); });
}

constexpr TAVLTreeCompareRoutine ByInteger =
    TAVLTreeCompareRoutine::Bind<&TAVLTree::CompareIntegers>();

}  // namespace

struct TAVLTree::TNodeDeleter {
  void operator()(TAVLTreeNode* Node) const noexcept { ::operator delete(Node); }
};

/// The links from the first one down to where a search has come.
struct TAVLTree::TPath {
  void Down(TAVLTreeNode** Link) noexcept { Links[Depth++] = Link; }

  /// Goes back up from Below, the link that the last of these led to, as long as there is something
  /// to do there. A step changes what hangs below its own link only, so the links above stay where
  /// they are.
  void Up(TAVLTreeNode** Below, TSearchContext& Context) {
    while (Depth > 0 && Context.Iteration != nullptr) {
      TAVLTreeNode** const link = Links[--Depth];
      Context.Iteration(*link, Below == &(*link)->Left ? -1 : 1, Context);
      Below = link;
    }
  }

  TAVLTreeNode** Links[MaximalHeight];
  int Depth = 0;
};

TAVLTree::TAVLTree(int32_t AKeySize, int32_t ADataSize, TAVLTreeCompareRoutine ACompareRoutine)
    : CompareRoutine(ACompareRoutine), KeySize_(AKeySize), DataSize_(ADataSize) {
  if (AKeySize < 0 || ADataSize < 0) throw Exception(messages::seIncorrectParameters);
}

TAVLTree::TAVLTree(int32_t ADataSize) : TAVLTree(sizeof(int32_t), ADataSize, ByInteger) {}

TAVLTree::~TAVLTree() { Clear(); }

int32_t TAVLTree::CompareIntegers(const void* Key1, const void* Key2) noexcept {
  return Difference(IntegerAt(Key1), IntegerAt(Key2));
}

/// Goes from the root toward Key: gives the link that holds its node, or the empty one where it
/// belongs, and whether it was found. Visit sees each link that is left behind.
template <class TVisit, class TCompare>
std::pair<TAVLTreeNode**, bool> TAVLTree::Descend(const void* Key, TVisit Visit, TCompare Compare) {
  TAVLTreeNode** link = &Root_;
  while (TAVLTreeNode* const node = *link) {
    const int32_t order = Compare(Key, GetKeyPointer(node));
    if (order == 0) return {link, true};
    Visit(link);
    link = &GetNodeLink(node, order < 0 ? -1 : 1);
  }
  return {link, false};
}

/// The library's own comparison of integers is done in place, which a search in a large tree of
/// integers feels.
template <class TVisit>
std::pair<TAVLTreeNode**, bool> TAVLTree::Descend(const void* Key, TVisit Visit) {
  if (CompareRoutine == ByInteger)
    return Descend(Key, Visit, [](const void* A, const void* B) { return CompareIntegers(A, B); });
  return Descend(Key, Visit, CompareRoutine);
}

void TAVLTree::InternalSearchEx(TSearchContext& Context) {
  TPath path;
  const auto [link, found] =
      Descend(Context.Key, [&path](TAVLTreeNode** Link) { path.Down(Link); });
  Context.Found = found;
  const auto handler = found ? Context.KeyFound : Context.KeyNotFound;
  if (handler != nullptr) (this->*handler)(*link, Context);
  path.Up(link, Context);
}

TAVLTreeNode* TAVLTree::Find(const void* Key) const {
  return *const_cast<TAVLTree*>(this)->Descend(Key, [](TAVLTreeNode**) {}).first;
}

void TAVLTree::Add(const void* Key, const void* Data) {
  TSearchContext context{Key,     Data, &TAVLTree::Add_KeyFound, &TAVLTree::Add_KeyNotFound,
                         nullptr, false};
  InternalSearchEx(context);
}

void TAVLTree::Add_KeyFound(TAVLTreeNode*& Link, TSearchContext& Context) {
  StoreData(Link, Context.Data);
}

void TAVLTree::Add_KeyNotFound(TAVLTreeNode*& Link, TSearchContext& Context) {
  const uint64_t size = sizeof(TAVLTreeNode) + uint64_t{static_cast<uint32_t>(KeySize_)} +
                        static_cast<uint32_t>(DataSize_);
  if (size > PTRDIFF_MAX) throw EOutOfMemory();
  void* const memory = ::operator new(static_cast<size_t>(size));
  std::unique_ptr<TAVLTreeNode, TNodeDeleter> node(new (memory) TAVLTreeNode{});
  Copy(GetKeyPointer(node.get()), Context.Key, KeySize_);
  void* const data = GetDataPointer(node.get());
  WithSize(DataSize_, [data](auto bytes) { std::memset(data, 0, bytes); });
  try {
    StoreData(node.get(), Context.Data);
  } catch (...) {
    ReleaseData(node.get());  // a descendant may raise behind its base's part of the work
    throw;
  }
  Link = node.release();
  Context.Iteration = &AddStep;
}

void TAVLTree::AddStep(TAVLTreeNode*& Link, int32_t Direction, TSearchContext& Context) {
  // A subtree that leaned is no higher afterwards: it has become even, or is rotated back to its
  // height.
  if (Link->Balance != 0) Context.Iteration = nullptr;
  Link->Balance += Direction;
  Rebalance(Link);
}

bool TAVLTree::Remove(const void* Key) {
  TSearchContext context{Key, nullptr, &TAVLTree::Remove_KeyFound, nullptr, nullptr, false};
  InternalSearchEx(context);
  return context.Found;
}

void TAVLTree::Remove_KeyFound(TAVLTreeNode*& Link, TSearchContext& Context) {
  TAVLTreeNode* const node = Link;
  ReleaseData(node);
  Context.Iteration = &RemoveStep;
  if (node->Left != nullptr && node->Right != nullptr) {
    ReplaceByMinimum(Link, Context);
    return;
  }
  Link = node->Right == nullptr ? node->Left : node->Right;
  TNodeDeleter()(node);
}

/// Gives the node at Link, whose data has been released, the key and data of the smallest one of
/// its larger keys, and frees that one instead.
void TAVLTree::ReplaceByMinimum(TAVLTreeNode*& Link, TSearchContext& Context) {
  TAVLTreeNode* const node = Link;
  TPath path;
  path.Down(&Link);
  TAVLTreeNode** link = &node->Right;
  for (; (*link)->Left != nullptr; link = &(*link)->Left) path.Down(link);
  TAVLTreeNode* const minimum = *link;
  Copy(GetKeyPointer(node), GetKeyPointer(minimum), KeySize_);
  Copy(GetDataPointer(node), GetDataPointer(minimum), DataSize_);
  *link = minimum->Right;
  TNodeDeleter()(minimum);
  path.Up(link, Context);
}

void TAVLTree::RemoveStep(TAVLTreeNode*& Link, int32_t Direction, TSearchContext& Context) {
  Link->Balance -= Direction;
  Rebalance(Link);
  if (Link->Balance != 0) Context.Iteration = nullptr;  // as high as before
}

void TAVLTree::Rebalance(TAVLTreeNode*& Link) noexcept {
  TAVLTreeNode* const node = Link;
  const int32_t heavy = node->Balance / 2;
  if (heavy == 0) return;
  TAVLTreeNode*& child = GetNodeLink(node, heavy);
  if (child->Balance * heavy < 0) child = Rotate(child, heavy);
  Link = Rotate(node, -heavy);
}

/// Lowers Node toward Side (-1 left, 1 right), and gives the child that takes its place.
TAVLTreeNode* TAVLTree::Rotate(TAVLTreeNode* Node, int32_t Side) noexcept {
  TAVLTreeNode* const child = GetNodeLink(Node, -Side);
  GetNodeLink(Node, -Side) = GetNodeLink(child, Side);
  GetNodeLink(child, Side) = Node;
  Node->Balance += Side * (std::max(0, -Side * child->Balance) + 1);
  child->Balance += Side * (std::max(0, Side * Node->Balance) + 1);
  return child;
}

bool TAVLTree::Search(const void* Key, void* Data) const {
  TAVLTreeNode* const node = Find(Key);
  if (node == nullptr) return false;
  Copy(Data, GetDataPointer(node), DataSize_);
  return true;
}

bool TAVLTree::KeyExists(const void* Key) const { return Find(Key) != nullptr; }

void TAVLTree::Clear() {
  ClearSubtree(Root_);
  Root_ = nullptr;
}

void TAVLTree::ClearSubtree(TAVLTreeNode* Node) {
  if (Node == nullptr) return;
  ClearSubtree(Node->Left);
  ClearSubtree(Node->Right);
  ReleaseData(Node);
  TNodeDeleter()(Node);
}

void TAVLTree::LeftPass(const TAVLIterationRoutine& Routine, void* UserData) {
  Pass(Root_, -1, Routine, UserData);
}

void TAVLTree::RightPass(const TAVLIterationRoutine& Routine, void* UserData) {
  Pass(Root_, 1, Routine, UserData);
}

void TAVLTree::Pass(TAVLTreeNode* Node, int32_t First, const TAVLIterationRoutine& Routine,
                    void* UserData) {
  if (Node == nullptr) return;
  Pass(GetNodeLink(Node, First), First, Routine, UserData);
  Routine(this, GetKeyPointer(Node), GetDataPointer(Node), UserData);
  Pass(GetNodeLink(Node, -First), First, Routine, UserData);
}

void TAVLTree::StoreData(TAVLTreeNode* Node, const void* Data) {
  Copy(GetDataPointer(Node), Data, DataSize_);
}

void TAVLTree::ReleaseData(TAVLTreeNode*) {}

TAVLDuplicatedKeyTree::TAVLDuplicatedKeyTree(int32_t AKeySize, int32_t AItemSize,
                                             TAVLTreeCompareRoutine ACompareRoutine)
    : TAVLTree(AKeySize, sizeof(void*), ACompareRoutine), ItemSize_(AItemSize) {
  if (AItemSize < 0) throw Exception(messages::seIncorrectParameters);
}

TAVLDuplicatedKeyTree::TAVLDuplicatedKeyTree(int32_t AItemSize)
    : TAVLDuplicatedKeyTree(sizeof(int32_t), AItemSize, ByInteger) {}

TAVLDuplicatedKeyTree::~TAVLDuplicatedKeyTree() { Clear(); }

void TAVLDuplicatedKeyTree::StoreData(TAVLTreeNode* Node, const void* Data) {
  uint8_t* list = nullptr;
  std::memcpy(&list, GetDataPointer(Node), sizeof list);
  const int32_t count = list == nullptr ? 0 : IntegerAt(list);
  const uint64_t used =
      sizeof count + uint64_t{static_cast<uint32_t>(count)} * static_cast<uint32_t>(ItemSize_);
  const uint64_t needed = used + static_cast<uint32_t>(ItemSize_);
  if (count == std::numeric_limits<int32_t>::max() || needed > PTRDIFF_MAX) throw EOutOfMemory();
  list = static_cast<uint8_t*>(std::realloc(list, static_cast<size_t>(needed)));
  if (list == nullptr) throw EOutOfMemory();
  const int32_t grown = count + 1;
  std::memcpy(list, &grown, sizeof grown);
  if (ItemSize_ > 0) std::memcpy(list + used, Data, static_cast<size_t>(ItemSize_));
  std::memcpy(GetDataPointer(Node), &list, sizeof list);
}

void TAVLDuplicatedKeyTree::ReleaseData(TAVLTreeNode* Node) {
  void* list = nullptr;
  std::memcpy(&list, GetDataPointer(Node), sizeof list);
  std::free(list);
}

TAVLObjectTree::TAVLObjectTree(int32_t KeySize, TAVLTreeCompareRoutine CompareRoutine)
    : Tree_(KeySize, sizeof(TObject*), CompareRoutine) {}

TAVLObjectTree::TAVLObjectTree() : Tree_(sizeof(TObject*)) {}

void TAVLObjectTree::Add(const void* Key, TObject* Obj) { Tree_.Add(Key, &Obj); }

TObject* TAVLObjectTree::Search(const void* Key) const {
  TObject* object = nullptr;
  Tree_.Search(Key, &object);
  return object;
}

}  // namespace velox
