#include "sums.hpp"

#include <algorithm>
#include <cctype>
#include <memory>

#include "velox/codecs/velHash.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velhash {

using namespace velox;

namespace {

template <class T>
std::string Hexadecimal(T Value) {
  return Format("%0*llx", static_cast<int>(2 * sizeof(T)), static_cast<unsigned long long>(Value));
}

/// With a CRC of its own, since the named instances are shared; it has the parameters of the named
/// one.
template <class T>
TSum Crc(T* Named) {
  auto value = std::make_shared<decltype(Named->GetInitialValue())>(Named->GetInitialValue());
  return {[=](const void* data, int32_t size) { Named->UpdateThreadSafe(data, size, *value); },
          [=] { return Hexadecimal(Named->GetFinalCRC(*value)); }};
}

template <class T>
TSum Checksum() {
  auto sum = std::make_shared<T>();
  return {[=](const void* data, int32_t size) { sum->Update(data, size); },
          [=] { return Hexadecimal(sum->GetCurrentChecksum()); }};
}

TSum Fletcher() {
  TSum sum = Checksum<TFletcherChecksum>();
  const auto update = sum.Update;
  sum.Update = [=](const void* data, int32_t size) {
    if (size % 2 != 0) throw Exception("it takes an even number of bytes, and this is an odd one");
    update(data, size);
  };
  return sum;
}

TSum Digest() {
  auto md5 = std::make_shared<TMD5>();
  return {[=](const void* data, int32_t size) { md5->Update(data, size); },
          [=] {
            TMD5Digest digest;
            md5->GetCurrentMD5(digest);
            std::string text = TMD5::ToString(digest);
            std::transform(text.begin(), text.end(), text.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
            return text;
          }};
}

}  // namespace

const std::vector<TAlgorithm> Algorithms = {
    {"crc8", [] { return Crc(TCRC8::GetInstanceIButton()); }},
    {"crc16", [] { return Crc(TCRC16::GetInstanceStandard()); }},
    {"crc16-ccitt", [] { return Crc(TCRC16::GetInstanceCITT()); }},
    {"crc16-xmodem", [] { return Crc(TCRC16::GetInstanceXModem()); }},
    {"crc32", [] { return Crc(TCRC32::GetInstanceStandard()); }},
    {"crc64", [] { return Crc(TCRC64::GetInstanceStandard()); }},
    {"sum8", [] { return Checksum<TChecksum8>(); }},
    {"sum16", [] { return Checksum<TChecksum16>(); }},
    {"sum32", [] { return Checksum<TChecksum32>(); }},
    {"adler32", [] { return Checksum<TAdler32Checksum>(); }},
    {"fletcher", [] { return Fletcher(); }},
    {"md5", [] { return Digest(); }},
};

const TAlgorithm* FindAlgorithm(const std::string& Name) {
  const auto found = std::find_if(Algorithms.begin(), Algorithms.end(),
                                  [&](const TAlgorithm& a) { return a.Name == Name; });
  return found == Algorithms.end() ? nullptr : &*found;
}

}  // namespace velhash
