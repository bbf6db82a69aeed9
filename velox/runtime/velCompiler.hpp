#pragma once

#include <string>
#include <typeinfo>

/// What depends on the compiler. Porting the library to another one starts, and should end, in this
/// folder.

#if __cplusplus < 202002L
#error "Velox needs C++20: compile with -std=c++20 or later"
#endif

#if defined(VELOX_STATIC)
/// Marks what the DLL exports. VELOX_STATIC is defined where the library is linked statically,
/// VELOX_BUILDING in the library's own sources.
#define VELOX_API
#elif defined(VELOX_BUILDING)
#define VELOX_API __declspec(dllexport)
#else
#define VELOX_API __declspec(dllimport)
#endif

/// Keeps a function out of line, so that VELOX_RETURN_ADDRESS() in it names its caller.
#define VELOX_NOINLINE __attribute__((noinline))

/// The address that the function in which it stands returns to.
#define VELOX_RETURN_ADDRESS() __builtin_return_address(0)

/// Lets the compiler check the arguments of a printf-like function against its pattern (positions
/// count from 1, and `this` counts).
#define VELOX_PRINTF(PatternPosition, FirstArgument) \
  __attribute__((format(gnu_printf, PatternPosition, FirstArgument)))

/// Stand around classes derived from a COM interface: those have no virtual destructor, since their
/// layout is fixed, and the compiler would warn of it.
#define VELOX_COM_CLASSES_BEGIN \
  _Pragma("GCC diagnostic push") _Pragma("GCC diagnostic ignored \"-Wnon-virtual-dtor\"")
/// Ends what VELOX_COM_CLASSES_BEGIN has begun.
#define VELOX_COM_CLASSES_END _Pragma("GCC diagnostic pop")

namespace velox {

/// The readable name of a type, without the prefix "velox::" of the library's own types. Falls back
/// to the compiler's internal name when that can't be decoded.
VELOX_API std::string TypeName(const std::type_info& Type);

/// The type of the exception that is being handled, null outside a handler or for one that is not
/// C++'s.
VELOX_API const std::type_info* CurrentExceptionType() noexcept;

}  // namespace velox
