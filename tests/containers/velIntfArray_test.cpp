#include "velox/containers/velIntfArray.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/support.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

std::string Log;

VELOX_COM_CLASSES_BEGIN
/// Writes down each change of its count.
class TCounting : public IInterface {
 public:
  explicit TCounting(char AName) : Name(AName) {}
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override {
    Log += {'+', Name};
    return ++References;
  }
  ULONG STDMETHODCALLTYPE Release() override {
    Log += {'-', Name};
    return --References;
  }
  const char Name;
  ULONG References = 0;
};

VELOX_COM_CLASSES_END

std::string Taken() { return std::exchange(Log, {}); }

std::string Names(const TInterfaceArray& Array) {
  std::string names;
  for (int32_t i = 0; i < Array.GetCount(); ++i) {
    const TInterfaceReference item = Array.GetItem(i);
    names += item ? static_cast<TCounting*>(item.get())->Name : '0';
  }
  return names;
}

TEST(InterfaceArray, TakesAndGivesBackReferencesAtItsMoments) {
  TCounting a('a');
  TCounting b('b');
  TCounting c('c');
  {
    TInterfaceArray array;
    array.Add(&a);
    array.Add(&b);
    array.AddItem(&c, 0);
    EXPECT_EQ(Taken(), "+a+b+c");
    array.GetItem(1);
    EXPECT_EQ(Taken(), "+a-a");
    array.Remove(0);  // c a b: each move takes the moved one, then lets the overwritten one go
    EXPECT_EQ(Taken(), "+a-c+b-a-b");
    array.Remove(&b);
    EXPECT_EQ(Taken(), "-b");
    array.Remove(&b);
    array.Add(&c);
    Taken();
  }
  EXPECT_EQ(Taken(), "-a-c");
  EXPECT_EQ(a.References + b.References + c.References, 0u);
}

TEST(InterfaceArray, KeepsDuplicatesAndNull) {
  TCounting a('a');
  TCounting b('b');
  TInterfaceArray array;
  EXPECT_EQ(array.Find(&a), -1);
  EXPECT_EQ(array.Find(nullptr), -1);
  for (IInterface* item : std::initializer_list<IInterface*>{&b, &a, nullptr, &a}) array.Add(item);
  EXPECT_EQ(a.References, 2u);
  EXPECT_EQ(array.Find(&a), 1);
  EXPECT_EQ(array.Find(nullptr), 2);
  array.Remove(&a);
  EXPECT_EQ(Names(array), "b0a");
  array.AddItem(&a, 1);
  EXPECT_EQ(Names(array), "ba0a");
}

TEST(InterfaceArray, GrowsByItsRule) {
  TCounting a('a');
  TInterfaceArray array;
  std::vector<int32_t> capacities{array.GetAllocCount()};
  for (int i = 0; i < 111; ++i) {
    array.Add(&a);
    if (array.GetAllocCount() != capacities.back()) capacities.push_back(array.GetAllocCount());
  }
  EXPECT_EQ(capacities,
            (std::vector<int32_t>{0, 10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, 121}));
  while (array.GetCount() > 0) array.Remove(0);
  EXPECT_EQ(array.GetAllocCount(), 121);
  EXPECT_EQ(a.References, 0u);
}

TEST(InterfaceArray, FaultsAreToldAndChangeNothing) {
  TCounting a('a');
  TInterfaceArray array;
  array.Add(&a);
  for (const int32_t index : {-1, 1}) {
    EXPECT_EQ(test::MessageOf([&] { array.GetItem(index); }), "Invalid index");
    EXPECT_THROW(array.Remove(index), Exception);
    EXPECT_THROW(array.DeleteItem(index), Exception);
    EXPECT_THROW(array.AddItem(&a, 2 * index), Exception);
  }
  EXPECT_EQ(array.GetCount(), 1);
  EXPECT_EQ(a.References, 1u);
}

}  // namespace
}  // namespace velox
