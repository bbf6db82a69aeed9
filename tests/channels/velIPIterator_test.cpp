#include "velox/channels/velIPIterator.hpp"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <utility>

#include "velox/foundation/velStringUtils.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velox {
namespace {

std::string Expand(const std::string& List) {
  std::string result;
  auto add = [&result](TObject*, const std::string& Address, bool&) {
    result = StrAddTail(result, " ", Address);
  };
  TIPAddressIterator iterator;
  iterator.SetEnumRoutine(TIPAddressEnumRoutine::To(add));
  try {
    iterator.SetAddresses(List);
  } catch (const Exception& e) {
    return e.what();
  }
  iterator.Enumerate();
  return result;
}

/// First and last address, and how many.
std::string Summary(const std::string& List) {
  const TStrings all = StrGetTokens(Expand(List), " ", false, false);
  return all.front() + " " + all.back() + " " + std::to_string(all.size());
}

TEST(IPIterator, ExpandsAndRefuses) {
  const std::pair<const char*, const char*> cases[] = {
      {"10.0.0.9-10.0.0.7", "10.0.0.7 10.0.0.8 10.0.0.9"},
      {" 10.0.0.1 , 10.0.0.2 ", "10.0.0.1 10.0.0.2"},
      {"10.0.0.1,", "10.0.0.1"},
      {"", ""},
      {"10.0.0.6;255.255.255.252", "10.0.0.5 10.0.0.6"},
      {"192.168.1.254-192.168.1.255", "192.168.1.254"},
      {"10.255.255.254-10.255.255.255", "10.255.255.254"},
      {"126.255.255.253-126.255.255.255", "126.255.255.253 126.255.255.254"},
      {"128.0.255.255, 191.255.0.1, 191.255.0.0", "191.255.0.1"},
      {"192.0.0.1, 192.0.0.0, 223.255.255.255", "192.0.0.1"},
      {"0.0.0.1", "Invalid address \"0.0.0.1\""},
      {"255.255.255.255", "Invalid address \"255.255.255.255\""},
      {"10.0.0.1;255.255.255.254", ""},
      {"10.0.0.2, 10.0.0.1-10.0.0.3, 10.0.0.4", "10.0.0.2 10.0.0.1 10.0.0.3 10.0.0.4"},
      {"0xA.0.0.010", "10.0.0.8"},
      {"10.0.0.0;255.255.255.0", "Invalid subnet mask \"255.255.255.0\""},
      {"10.0.0.1; 255.0.255.0", "Invalid subnet mask \"255.0.255.0\""},
      {"10.0.0.1;0.0.0.0", "Invalid subnet mask \"0.0.0.0\""},
      {"10.0.0.1-11.0.0.1", "Addresses in range \"10.0.0.1-11.0.0.1\" are not within the same net"},
      {"127.0.0.1", "Invalid address \"127.0.0.1\""},
      {" 224.0.0.1", "Invalid address \"224.0.0.1\""},
      {"10.0.0.1,,10.0.0.2", "Invalid address \"\""},
      {"10.0.0.256", "Invalid address \"10.0.0.256\""},
      {"10.0.0.1.2", "Invalid address \"10.0.0.1.2\""},
      {"10.0.0.1-host", "Invalid address \"host\""},
      {"10.0.0.1, 10.*.*", "Invalid address mask \" 10.*.*\""},
      {"192.168.*", "Invalid address mask \"192.168.*\""},
      {"127.0.0.*", "Invalid address mask \"127.0.0.*\""},
  };
  for (const auto& [list, result] : cases) EXPECT_EQ(Expand(list), result) << list;
  EXPECT_EQ(Summary("192.168.1.*"), "192.168.1.1 192.168.1.254 254");
  EXPECT_EQ(Summary("10.0.0.5;255.255.255.0"), "10.0.0.1 10.0.0.254 254");
}

TEST(IPIterator, EachAddressOnceAsAWalkOverAllRangesFindsIt) {
  std::mt19937 random(5);
  const auto below = [&](uint32_t Limit) { return static_cast<int>(random() % Limit); };
  for (int round = 0; round < 50; ++round) {
    TIPAddressIterator iterator;
    std::string list;
    for (int i = 0; i < 6; ++i) {
      list = StrAddTail(
          list, ",", Format("10.0.%d.%d-10.0.%d.%d", below(3), below(256), below(3), below(256)));
    }
    iterator.SetAddresses(list);
    std::string expected;
    std::set<uint32_t> seen;
    for (int32_t i = 0; i < iterator.GetRanges().GetCount(); ++i) {
      const auto* range = static_cast<TIPAddressRange*>(iterator.GetRanges().GetItems(i));
      for (uint32_t a = range->GetLow(); a <= range->GetHigh(); ++a) {
        if (!TIPAddressIterator::IsAddressValid(a) || !seen.insert(a).second) continue;
        expected = StrAddTail(expected, " ",
                              Format("%u.%u.%u.%u", a >> 24, a >> 16 & 255, a >> 8 & 255, a & 255));
      }
    }
    ASSERT_EQ(Expand(list), expected) << list;
  }
}

TEST(IPIterator, RoutineStopsAndCannotChangeTheList) {
  TIPAddressIterator iterator;
  EXPECT_THROW(iterator.Enumerate(), EAssertionFailed);
  int calls = 0;
  auto third = [&](TObject* Sender, const std::string&, bool& Stop) {
    EXPECT_EQ(Sender, &iterator);
    iterator.SetAddresses("10.0.0.1");
    iterator.SetEnumRoutine(nullptr);
    Stop = ++calls == 3;
  };
  iterator.SetEnumRoutine(TIPAddressEnumRoutine::To(third));
  iterator.SetAddresses("192.168.1.*");
  iterator.Enumerate();
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(iterator.GetAddresses(), "192.168.1.*");

  auto fail = [](TObject*, const std::string&, bool&) { throw Exception("enough"); };
  iterator.SetEnumRoutine(TIPAddressEnumRoutine::To(fail));
  EXPECT_THROW(iterator.Enumerate(), Exception);
  EXPECT_FALSE(iterator.GetEnumerating());
  EXPECT_THROW(iterator.SetAddresses("10.0.0.1, bad, 10.0.0.2"), Exception);
  EXPECT_EQ(iterator.GetRanges().GetCount(), 1);
}

}  // namespace
}  // namespace velox
