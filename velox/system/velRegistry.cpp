#include "velox/system/velRegistry.hpp"

#include <algorithm>
#include <iterator>
#include <vector>

#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velMessages.hpp"

namespace velox {

TRegistryEx::~TRegistryEx() = default;

void TRegistryEx::ReadStringList(const std::string& Name, TStrings& Strings) const {
  const std::vector<uint8_t> data = ReadOfType(Name, REG_MULTI_SZ);
  if (data.size() <= 1) return;
  TStrings found;
  for (auto at = data.begin(); at != data.end() && *at != 0;) {
    const auto end = std::find(at, data.end(), 0);
    found.emplace_back(at, end);
    if (end == data.end()) break;  // nothing makes sure of the zeros
    at = end + 1;
  }
  Strings.insert(Strings.end(), std::make_move_iterator(found.begin()),
                 std::make_move_iterator(found.end()));
}

void TRegistryEx::WriteStringList(const std::string& Name, const TStrings& Strings) {
  std::string data;
  for (const std::string& string : Strings) {
    const std::string text = string.substr(0, string.find('\0'));
    if (!text.empty()) data.append(text.c_str(), text.size() + 1);
  }
  data.push_back('\0');
  WriteStored(Name, REG_MULTI_SZ, data.data(), data.size());
}

void TRegistryEx::WriteDefaultString(TRegistry& Registry, const std::string& KeyName,
                                     const std::string& Value) {
  if (!Registry.OpenKey(KeyName, true)) {
    throw ERegistryException(Format(messages::seRegistryCreateFailed, KeyName.c_str()));
  }
  struct TCloser {
    ~TCloser() { Opened.CloseKey(); }
    TRegistry& Opened;
  } const closer{Registry};
  Registry.WriteString("", Value);
}

}  // namespace velox
