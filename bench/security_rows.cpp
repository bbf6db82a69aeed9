// Access control lists: what an entry costs must not depend on how many there are.

#include <memory>
#include <vector>

#include "bench/harness.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/system/velSecurity.hpp"

namespace bench {
namespace {

using namespace velox;

/// The accounts that every system knows.
std::vector<std::unique_ptr<TSecurityIdentifier>> Accounts() {
  std::vector<std::unique_ptr<TSecurityIdentifier>> accounts;
  for (int type = WinNullSid; type <= WinBuiltinNetworkConfigurationOperatorsSid; ++type) {
    try {
      accounts.push_back(
          std::make_unique<TSecurityIdentifier>("", static_cast<WELL_KNOWN_SID_TYPE>(type)));
    } catch (const EOSError&) {
      continue;  // an account that only a domain has
    }
  }
  return accounts;
}

/// A list in which the accounts take turns. It would refuse the second entry of an account, so the
/// entries are of another type while the next one comes.
std::unique_ptr<TAccessControlList> ListOf(int32_t Count) {
  const auto accounts = Accounts();
  auto list = std::make_unique<TAccessControlList>(aclDiscretionary);
  for (int32_t i = 0; i < Count; ++i) {
    const TSecurityIdentifier& account = *accounts[static_cast<size_t>(i) % accounts.size()];
    auto entry = std::make_unique<TAccessControlEntry>(
        aceAccessAllowed, std::make_unique<TSecurityIdentifier>("", account.GetSid()));
    if (!list->AddAce(entry.get())) throw Exception("an entry is refused");
    entry.release()->AceType = aceSystemAudit;
  }
  for (int32_t i = 0; i < Count; ++i) list->GetAce(i).AceType = aceAccessAllowed;
  return list;
}

std::vector<uint8_t> Built(const TAccessControlList& List) {
  std::vector<uint8_t> bytes(static_cast<size_t>(List.GetSize()));
  List.Build(*reinterpret_cast<ACL*>(bytes.data()));
  return bytes;
}

// 12 times the time for 10 times the entries is what is allowed.
constexpr double Target = 10.0 / 12;

const TGroup Lists(
    "access control lists",
    [] {
      const auto large = ListOf(1000), small = ListOf(100);
      Compare({"building 1000 entries, each", "itself with 100", Target, 1000, 100},
              Repeat([&] { return Built(*large).size(); }),
              Repeat([&] { return Built(*small).size(); }));
      const std::vector<uint8_t> largeBytes = Built(*large), smallBytes = Built(*small);
      const auto extract = [](const std::vector<uint8_t>& Bytes) {
        return TAccessControlList("", aclDiscretionary, reinterpret_cast<const ACL*>(Bytes.data()))
            .GetAceCount();
      };
      Compare({"extracting 1000 entries, each", "itself with 100", Target, 1000, 100},
              Repeat([&] { return extract(largeBytes); }),
              Repeat([&] { return extract(smallBytes); }));
    },
    true);

}  // namespace
}  // namespace bench
