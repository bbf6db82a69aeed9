#include "velox/runtime/velException.hpp"

#include <new>
#include <utility>

#include "velox/runtime/velMessages.hpp"

namespace velox {

Exception::Exception(std::string Text) : Exception(std::move(Text), VELOX_RETURN_ADDRESS()) {}
Exception::Exception(std::string Text, const void* AAddress)
    : Text_(std::move(Text)), Address_(AAddress) {}
Exception::~Exception() = default;

std::string Exception::ClassName() const { return TypeName(typeid(*this)); }

EOSError::EOSError(std::string Text, uint32_t AErrorCode)
    : EOSError(std::move(Text), AErrorCode, VELOX_RETURN_ADDRESS()) {}
EOSError::EOSError(std::string Text, uint32_t AErrorCode, const void* AAddress)
    : Exception(std::move(Text), AAddress), ErrorCode(AErrorCode) {}
EOSError::~EOSError() = default;

EOleSysError::EOleSysError(std::string Text, int32_t AErrorCode)
    : EOleSysError(std::move(Text), AErrorCode, VELOX_RETURN_ADDRESS()) {}
EOleSysError::EOleSysError(std::string Text, int32_t AErrorCode, const void* AAddress)
    : Exception(std::move(Text), AAddress), ErrorCode(AErrorCode) {}
EOleSysError::~EOleSysError() = default;

EOutOfMemory::EOutOfMemory() : Exception(messages::seOutOfMemory, VELOX_RETURN_ADDRESS()) {}
EOutOfMemory::~EOutOfMemory() = default;

EDivByZero::EDivByZero() : Exception(messages::seDivByZero, VELOX_RETURN_ADDRESS()) {}
EDivByZero::~EDivByZero() = default;

EConvertError::~EConvertError() = default;
EAssertionFailed::~EAssertionFailed() = default;
ERegistryException::~ERegistryException() = default;
EStreamError::~EStreamError() = default;
EReadError::~EReadError() = default;
EWriteError::~EWriteError() = default;
EFOpenError::~EFOpenError() = default;
EFCreateError::~EFCreateError() = default;

TExceptionDescription DescribeCurrentException() {
  if (std::current_exception() == nullptr) return {"nil", false, {}, nullptr};
  try {
    throw;
  } catch (const Exception& e) {
    return {e.ClassName(), true, e.what(), e.Address()};
  } catch (const std::bad_alloc& e) {
    return {TypeName(typeid(EOutOfMemory)), true, e.what(), nullptr};
  } catch (const std::exception& e) {
    return {TypeName(typeid(e)), true, e.what(), nullptr};
  } catch (...) {
    const std::type_info* type = CurrentExceptionType();
    return {type == nullptr ? "unknown" : TypeName(*type), false, {}, nullptr};
  }
}

}  // namespace velox
