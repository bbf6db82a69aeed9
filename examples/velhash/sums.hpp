#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// The values that can be computed of a file, by the names of the command line's options.
namespace velhash {

/// A value being computed.
struct TSum {
  std::function<void(const void*, int32_t)> Update;
  std::function<std::string()> Text;  // the value, in lower-case hexadecimal
};

struct TAlgorithm {
  std::string Name;
  TSum (*Start)();
};

extern const std::vector<TAlgorithm> Algorithms;

/// Null when there is none of that name.
const TAlgorithm* FindAlgorithm(const std::string& Name);

}  // namespace velhash
