#include <memory>
#include <string>

#include "docs/samples/samples.hpp"
#include "velox/containers/velAVLTree.hpp"
#include "velox/containers/velCyclicBuffer.hpp"
#include "velox/containers/velObjArray.hpp"

namespace samples {

using namespace velox;

namespace {

//! [array]
struct TPerson : TObject {
  TPerson(std::string AName, int AAge) : Name(std::move(AName)), Age(AAge) {}
  std::string Name;
  int Age;
};

int32_t CompareNames(TObject* A, TObject* B) {
  return static_cast<TPerson*>(A)->Name.compare(static_cast<TPerson*>(B)->Name);
}

int32_t CompareAges(TObject* A, TObject* B) {
  return static_cast<TPerson*>(A)->Age - static_cast<TPerson*>(B)->Age;
}

void Fill(TObjectArray& People) {
  People.SetSharedObjects(false);  // the array frees what it drops
  People.CompareRoutine = TObjectCompareRoutine::Bind<&CompareNames>();
  People.SetSorted(true);
  auto add = [&](std::unique_ptr<TPerson> Person) {
    if (People.Add(Person.get())) static_cast<void>(Person.release());
  };
  add(std::make_unique<TPerson>("Mary", 31));
  add(std::make_unique<TPerson>("Anne", 35));
}

std::string OldestOf(TObjectArray& People) {
  TObjectArraySecondaryIndex byAge(&People);  // another order of the same array
  byAge.OnCompare = TObjectCompareRoutine::Bind<&CompareAges>();
  byAge.UpdateIndex();
  return static_cast<TPerson*>(byAge.GetOrderedItems(byAge.GetCount() - 1))->Name;
}
//! [array]

//! [tree]
/// Counts how often each number occurs.
void Count(TAVLTree& Counts, int32_t Number) {  // made as TAVLTree counts(sizeof(int32_t))
  int32_t count = 0;
  Counts.Search(&Number, &count);  // leaves it alone when there is none
  ++count;
  Counts.Add(&Number, &count);
}
//! [tree]

//! [ring]
/// Keeps the last 99 bytes of what is written to it.
void KeepTail(TInternalCyclicBuffer& Ring) {
  Ring.SetSize(100);  // one place always stays free
  Ring.SetOverwritable(true);
}
//! [ring]

}  // namespace

void RunContainers() {
  TObjectArray people(TClass::Of<TPerson>());
  Fill(people);
  Expect(static_cast<TPerson*>(people.GetItems(0))->Name == "Anne", "people stand by name");
  Expect(OldestOf(people) == "Anne", "Anne is the oldest");
  TAVLTree counts(sizeof(int32_t));
  Count(counts, 7);
  Count(counts, 7);
  const int32_t seven = 7;
  int32_t count = 0;
  Expect(counts.Search(&seven, &count) && count == 2, "there are two");
  TInternalCyclicBuffer ring;
  KeepTail(ring);
  int32_t written = 150;
  ring.WriteData(std::string(150, 'x').data(), written);
  Expect(ring.GetCount() == 99, "the ring keeps 99");
}

}  // namespace samples
