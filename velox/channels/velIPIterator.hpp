#pragma once

#include <cstdint>
#include <string>

#include "velox/containers/velObjArray.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"

namespace velox {

/// A run of IPv4 addresses, both ends included. Addresses are numbers here, the first octet in the
/// highest byte.
class VELOX_API TIPAddressRange : public TObject {
 public:
  /// Reads one item of a list. The first of these forms that fits is taken; blanks around
  /// addresses don't matter:
  ///
  ///     10.0.0.3-10.0.0.9          all between the two, which may also stand the other way round
  ///     10.0.0.5;255.255.255.0     the hosts of that address's network by a subnet mask
  ///     192.168.1.*                192.168.1.1 to 192.168.1.254
  ///     10.0.0.1                   one address
  ///
  /// An address has the forms that inet_addr knows: four numbers, or fewer where the last one fills
  /// the rest (10.1 is 10.0.0.1), decimal, octal with a leading 0, or hexadecimal with 0x.
  ///
  /// Raises Exception: "Invalid address "%s"" for what is no address of class A, B or C; "Addresses
  /// in range "%s" are not within the same net" when the ends of a range are of different classful
  /// networks; "Invalid subnet mask "%s"" when CheckSubnetMask refuses it, so also for a network's
  /// own address such as 10.1.2.0 with 255.255.255.0; "Invalid address mask "%s"" for a wildcard
  /// that is not the last octet.
  explicit TIPAddressRange(const std::string& Text);

  /// The first and the last address.
  uint32_t GetLow() const noexcept { return Low_; }
  uint32_t GetHigh() const noexcept { return High_; }

  /// Whether the address is one of the run.
  bool IsAddressInside(uint32_t Address) const noexcept {
    return Low_ <= Address && Address <= High_;
  }

 private:
  void ReadRange(const std::string& Text);
  void ReadMasked(const std::string& Text);
  void ReadWildcard(const std::string& Text);

  uint32_t Low_ = 0;
  uint32_t High_ = 0;
};

/// Gets an address as text, such as "10.0.0.1". Setting Stop ends the enumeration.
using TIPAddressEnumRoutine =
    TMethod<void(TObject* Sender, const std::string& Address, bool& Stop)>;

/// Calls a routine with each host address of a list such as "10.0.0.1-10.0.0.20, 192.168.1.*".
///
/// Items are expanded in their order, each from its lowest address up. Left out are the addresses
/// of networks and broadcasts (all host bits 0 or 1), those outside the classes A, B and C (so
/// 0.x, 127.x and from 224.0.0.0 on), and those that an item further to the left contains.
///
///     TIPAddressIterator hosts;
///     hosts.SetAddresses("192.168.1.*, 10.0.0.5;255.255.255.240");
///     hosts.SetEnumRoutine(TIPAddressEnumRoutine::Bind<&TScan::Ask>(this));
///     hosts.Enumerate();
///
/// Not locked: one thread at a time.
class VELOX_API TIPAddressIterator : public TObject {
 public:
  /// With an empty list and no routine.
  TIPAddressIterator();

  /// 1, 2 or 3 for an address of class A, B or C; 0 for any other.
  static int32_t GetNetClass(uint32_t Address) noexcept;
  /// The mask of the address's class; all ones for an address of none.
  static uint32_t GetNetMask(uint32_t Address) noexcept;
  /// Whether it is the address of a host: it has a class, and its host part is neither all zeros
  /// nor all ones.
  static bool IsAddressValid(uint32_t Address) noexcept;
  /// Whether the two agree under the masks of their classes.
  static bool IsSameNet(uint32_t Address1, uint32_t Address2) noexcept;
  /// Whether the mask is ones from the top followed by zeros, with at least a one, and the address
  /// has a bit outside it.
  static bool CheckSubnetMask(uint32_t Address, uint32_t Mask) noexcept;

  /// The list as it was set.
  const std::string& GetAddresses() const noexcept { return Addresses_; }
  /// Replaces the list: items as TIPAddressRange reads them, separated by commas. An item that
  /// fails raises its message; the ranges before it are kept. Ignored while enumerating.
  void SetAddresses(const std::string& Text);
  /// What the list has been read into, in its order.
  const TObjectArray& GetRanges() const noexcept { return Ranges_; }

  /// The routine that gets the addresses. Setting it is ignored while enumerating.
  TIPAddressEnumRoutine GetEnumRoutine() const noexcept { return EnumRoutine_; }
  void SetEnumRoutine(TIPAddressEnumRoutine Routine) noexcept;

  /// Calls the routine, on this thread, with each address until all are done or it asks to stop.
  /// What the routine raises ends the enumeration and passes on. Raises EAssertionFailed when no
  /// routine is set.
  void Enumerate();
  bool GetEnumerating() const noexcept { return Enumerating_; }

 private:
  TIPAddressEnumRoutine EnumRoutine_;
  bool Enumerating_ = false;
  TObjectArray Ranges_;
  std::string Addresses_;
};

}  // namespace velox
