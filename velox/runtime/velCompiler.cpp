#include "velox/runtime/velCompiler.hpp"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <string_view>

namespace velox {

std::string TypeName(const std::type_info& Type) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(Type.name(), nullptr, nullptr, &status), &std::free);
  if (status != 0) return Type.name();
  const std::string_view name = demangled.get();
  constexpr std::string_view Own = "velox::";
  return std::string(name.starts_with(Own) ? name.substr(Own.size()) : name);
}

const std::type_info* CurrentExceptionType() noexcept {
  return abi::__cxa_current_exception_type();
}

}  // namespace velox
