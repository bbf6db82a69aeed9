#include "velox/channels/velIPIterator.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "velox/foundation/velStringUtils.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velox {
namespace {

constexpr uint32_t NoAddress = 0xFFFFFFFF;

/// The number that all of Text is: decimal, octal or hexadecimal as in C.
std::optional<uint32_t> ReadNumber(std::string_view Text) {
  int base = 10;
  if (Text.starts_with("0x") || Text.starts_with("0X")) {
    base = 16;
    Text.remove_prefix(2);
  } else if (Text.starts_with('0')) {
    base = 8;
  }
  uint32_t value = 0;
  const char* const end = Text.data() + Text.size();
  const auto [stop, error] = std::from_chars(Text.data(), end, value, base);
  if (error != std::errc() || stop != end) return std::nullopt;
  return value;
}

/// An address by the rules of inet_addr, which gives the all-ones address for what is none.
uint32_t ReadAddress(const std::string& Text) {
  const TStrings parts = StrGetTokens(Text, ".", false, false);
  if (parts.empty() || parts.size() > 4) return NoAddress;
  uint32_t address = 0;
  for (size_t i = 0; i + 1 < parts.size(); ++i) {
    const auto octet = ReadNumber(parts[i]);
    if (!octet || *octet > 255) return NoAddress;
    address |= *octet << (24 - 8 * i);
  }
  const auto rest = ReadNumber(parts.back());
  const uint32_t room = NoAddress >> 8 * (parts.size() - 1);
  return rest && *rest <= room ? address | *rest : NoAddress;
}

uint32_t RequireAddress(const std::string& Text, const std::string& Named, const char* Message) {
  const uint32_t address = ReadAddress(Text);
  if (TIPAddressIterator::GetNetClass(address) == 0)
    throw Exception(Format(Message, Named.c_str()));
  return address;
}

uint32_t RequireAddress(const std::string& Text) {
  return RequireAddress(Text, Text, messages::seInvalidAddress);
}

/// The trimmed texts before and behind the first Delimiter.
std::pair<std::string, std::string> Halves(std::string Text, const std::string& Delimiter) {
  std::string first;
  StrGetToken(Text, Delimiter, first);
  return {Trim(first), Trim(Text)};
}

bool Contains(const std::string& Text, char C) { return Text.find(C) != std::string::npos; }

/// Both ends included; wider than an address, so that counting past the last one ends.
struct TRun {
  uint64_t Low, High;
};

/// Adds to a list of runs, which are in order and don't touch, what Range has beyond them; the
/// result is what was added.
std::vector<TRun> AddRun(std::vector<TRun>& Runs, TRun Range) {
  std::vector<TRun> added;
  if (Range.Low > Range.High) return added;
  const auto first = std::find_if(Runs.begin(), Runs.end(),
                                  [&](const TRun& Run) { return Run.High + 1 >= Range.Low; });
  TRun merged = Range;
  uint64_t next = Range.Low;
  auto last = first;
  for (; last != Runs.end() && last->Low <= Range.High + 1; ++last) {
    if (next < last->Low) added.push_back({next, std::min(last->Low - 1, Range.High)});
    next = std::max(next, last->High + 1);
    merged = {std::min(merged.Low, last->Low), std::max(merged.High, last->High)};
  }
  if (next <= Range.High) added.push_back({next, Range.High});
  Runs.insert(Runs.erase(first, last), merged);
  return added;
}

/// Addresses as dotted text. Going upward, all but the last octet mostly stay what they were.
class TAddressText {
 public:
  TAddressText() {
    for (size_t i = 0; i < Octets_.size(); ++i) Octets_[i] = std::to_string(i);
  }

  const std::string& operator()(uint32_t Address) {
    if (Address >> 8 != Upper_ || Text_.empty()) {
      Upper_ = Address >> 8;
      Text_.clear();
      for (int shift = 24; shift > 0; shift -= 8)
        Text_.append(Octets_[Address >> shift & 0xFF]).push_back('.');
      UpperLength_ = Text_.size();
    }
    Text_.resize(UpperLength_);
    return Text_.append(Octets_[Address & 0xFF]);
  }

 private:
  std::array<std::string, 256> Octets_;
  std::string Text_;
  size_t UpperLength_ = 0;
  uint32_t Upper_ = 0;
};

}  // namespace

TIPAddressRange::TIPAddressRange(const std::string& Text) {
  if (Contains(Text, '-')) {
    ReadRange(Text);
  } else if (Contains(Text, ';')) {
    ReadMasked(Text);
  } else if (Trim(Text).ends_with(".*")) {
    ReadWildcard(Text);
  } else {
    Low_ = High_ = RequireAddress(Trim(Text));
  }
}

void TIPAddressRange::ReadRange(const std::string& Text) {
  const auto [first, second] = Halves(Text, "-");
  const uint32_t a = RequireAddress(first);
  const uint32_t b = RequireAddress(second);
  if (!TIPAddressIterator::IsSameNet(a, b))
    throw Exception(Format(messages::seNotTheSameNet, Text.c_str()));
  std::tie(Low_, High_) = std::minmax(a, b);
}

void TIPAddressRange::ReadMasked(const std::string& Text) {
  const auto [first, second] = Halves(Text, ";");
  const uint32_t address = RequireAddress(first);
  const uint32_t mask = ReadAddress(second);
  if (!TIPAddressIterator::CheckSubnetMask(address, mask))
    throw Exception(Format(messages::seInvalidSubnetMask, second.c_str()));
  Low_ = (address & mask) + 1;
  High_ = (address | ~mask) - 1;
}

void TIPAddressRange::ReadWildcard(const std::string& Text) {
  std::string first = Trim(Text);
  first.back() = '0';
  // Shorter forms of an address would have the wildcard stand for more than the last octet.
  if (std::count(first.begin(), first.end(), '.') != 3)
    throw Exception(Format(messages::seInvalidAddressMask, Text.c_str()));
  const uint32_t address = RequireAddress(first, Text, messages::seInvalidAddressMask);
  Low_ = address + 1;
  High_ = (address | 0xFF) - 1;
}

TIPAddressIterator::TIPAddressIterator() : Ranges_(TClass::Of<TIPAddressRange>()) {
  Ranges_.SetSharedObjects(false);
}

int32_t TIPAddressIterator::GetNetClass(uint32_t Address) noexcept {
  const uint32_t octet = Address >> 24;
  if (octet >= 1 && octet <= 126) return 1;
  if (octet >= 128 && octet <= 191) return 2;
  if (octet >= 192 && octet <= 223) return 3;
  return 0;
}

uint32_t TIPAddressIterator::GetNetMask(uint32_t Address) noexcept {
  return NoAddress << (4 - GetNetClass(Address)) * 8 % 32;
}

bool TIPAddressIterator::IsAddressValid(uint32_t Address) noexcept {
  const uint32_t hosts = ~GetNetMask(Address);
  const uint32_t host = Address & hosts;
  return host != 0 && host != hosts;  // an address without a class has no host part
}

bool TIPAddressIterator::IsSameNet(uint32_t Address1, uint32_t Address2) noexcept {
  return (Address1 & GetNetMask(Address1)) == (Address2 & GetNetMask(Address2));
}

bool TIPAddressIterator::CheckSubnetMask(uint32_t Address, uint32_t Mask) noexcept {
  const uint32_t hosts = ~Mask;
  return Mask != 0 && (hosts & (hosts + 1)) == 0 && (Address & hosts) != 0;
}

void TIPAddressIterator::SetAddresses(const std::string& Text) {
  if (Enumerating_) return;
  Addresses_ = Text;
  Ranges_.Clear();
  std::string rest = Trim(Text), item;
  while (!rest.empty()) {
    StrGetToken(rest, ",", item);
    auto range = std::make_unique<TIPAddressRange>(item);
    Ranges_.Add(range.get());
    range.release();
  }
}

void TIPAddressIterator::SetEnumRoutine(TIPAddressEnumRoutine Routine) noexcept {
  if (!Enumerating_) EnumRoutine_ = Routine;
}

void TIPAddressIterator::Enumerate() {
  if (!EnumRoutine_) throw EAssertionFailed(messages::seMethodIsNotAssigned);
  const auto reset = [before = std::exchange(Enumerating_, true)](bool* Enumerating) {
    *Enumerating = before;
  };
  const std::unique_ptr<bool, decltype(reset)> enumerating(&Enumerating_, reset);
  std::vector<TRun> done;
  TAddressText text;
  bool stop = false;
  for (int32_t i = 0; i < Ranges_.GetCount(); ++i) {
    const auto& range = *static_cast<TIPAddressRange*>(Ranges_.GetItems(i));
    for (const TRun& run : AddRun(done, {range.GetLow(), range.GetHigh()})) {
      for (uint64_t at = run.Low; at <= run.High; ++at) {
        const auto address = static_cast<uint32_t>(at);
        if (!IsAddressValid(address)) continue;
        EnumRoutine_(this, text(address), stop);
        if (stop) return;
      }
    }
  }
}

}  // namespace velox
