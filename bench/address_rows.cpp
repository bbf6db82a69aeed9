// Expanding lists of addresses against a loop that only formats them.

#include <cstdio>
#include <cstring>

#include "bench/harness.hpp"
#include "velox/channels/velIPIterator.hpp"
#include "velox/foundation/velStringUtils.hpp"
#include "velox/runtime/velFormat.hpp"

namespace bench {
namespace {

using namespace velox;

constexpr int Ranges = 10;
constexpr uint32_t RangeSize = 65'534;

/// Where a range begins: each overlaps half of the one before it.
uint32_t FirstOf(int Range) { return 0x0A000001 + static_cast<uint32_t>(Range) * (RangeSize / 2); }

size_t Total = 0;

void Count(TObject*, const std::string& Address, bool&) { Total += Address.size(); }

std::string Dotted(uint32_t Address) {
  return Format("%u.%u.%u.%u", Address >> 24, Address >> 16 & 255, Address >> 8 & 255,
                Address & 255);
}

const TGroup Addresses("addresses", [] {
  std::string list;
  for (int i = 0; i < Ranges; ++i)
    list = StrAddTail(list, ",", Dotted(FirstOf(i)) + "-" + Dotted(FirstOf(i) + RangeSize - 1));
  const auto ours = [&list] {
    TIPAddressIterator iterator;
    iterator.SetEnumRoutine(TIPAddressEnumRoutine::Bind<&Count>());
    iterator.SetAddresses(list);
    iterator.Enumerate();
    return Total;
  };
  // The same addresses once each, without a list or a check.
  const auto theirs = [] {
    char text[16];
    for (uint32_t a = FirstOf(0); a < FirstOf(Ranges - 1) + RangeSize; ++a) {
      std::snprintf(text, sizeof text, "%u.%u.%u.%u", a >> 24, a >> 16 & 255, a >> 8 & 255,
                    a & 255);
      Total += std::strlen(text);
    }
    return Total;
  };
  Compare({"expanding 10 ranges of 65,534 addresses that overlap", "a loop of snprintf", 0.5},
          Repeat(ours), Repeat(theirs));
});

}  // namespace
}  // namespace bench
