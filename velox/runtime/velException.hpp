#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include "velox/runtime/velCompiler.hpp"

namespace velox {

/// The library's general exception: a message, and the address where it was raised. All its others
/// derive from it.
class VELOX_API Exception : public std::exception {
 public:
  /// With a message; the address is that of the caller.
  VELOX_NOINLINE explicit Exception(std::string Text);
  /// A copy keeps the address.
  Exception(const Exception&) = default;
  Exception& operator=(const Exception&) = default;
  ~Exception() override;

  /// The message, without the class's name.
  const char* what() const noexcept override { return Text_.c_str(); }

  /// The address of the code that made the exception, for the trace log.
  const void* Address() const noexcept { return Address_; }

  /// The name of the exception's own class, without the library's namespace.
  std::string ClassName() const;

 protected:
  /// For derived classes with a constructor of their own, which tell who called them.
  Exception(std::string Text, const void* AAddress);

 private:
  std::string Text_;
  const void* Address_;
};

/// A failed call of the operating system. Raised through RaiseLastOSErrorEx and its like
/// (velSysUtils.hpp), which build the message from the system's own text.
class VELOX_API EOSError : public Exception {
 public:
  /// The complete message, and the code.
  VELOX_NOINLINE EOSError(std::string Text, uint32_t AErrorCode);
  /// As raised at another address: a function that raises for its caller names that one.
  EOSError(std::string Text, uint32_t AErrorCode, const void* AAddress);
  ~EOSError() override;

  /// The system's error code, as GetLastError() gave it.
  uint32_t ErrorCode;
};

/// No memory left. Once the library is loaded, a failed `new` raises it, in the programs that use
/// the library too (unless they set a new-handler of their own).
class VELOX_API EOutOfMemory : public Exception {
 public:
  /// With the message "Out of memory".
  VELOX_NOINLINE EOutOfMemory();
  ~EOutOfMemory() override;
};

/// An integer division by zero.
class VELOX_API EDivByZero : public Exception {
 public:
  /// With the message "Division by zero".
  VELOX_NOINLINE EDivByZero();
  ~EDivByZero() override;
};

/// Declares an exception class that adds nothing but its name.
#define VELOX_EXCEPTION(Name, Base)    \
  class VELOX_API Name : public Base { \
   public:                             \
    using Base::Base;                  \
    ~Name() override;                  \
  }

/// Text that is no number, digit or the like.
VELOX_EXCEPTION(EConvertError, Exception);
/// A condition that a caller had to keep is broken.
VELOX_EXCEPTION(EAssertionFailed, Exception);
/// The registry refused; also raised for faults in the data read from it.
VELOX_EXCEPTION(ERegistryException, Exception);

/// A stream failed; the classes below tell how.
VELOX_EXCEPTION(EStreamError, Exception);
/// Reading failed, or gave less than was asked for.
VELOX_EXCEPTION(EReadError, EStreamError);
/// Writing failed, or took less than was given.
VELOX_EXCEPTION(EWriteError, EStreamError);
/// A file could not be opened.
VELOX_EXCEPTION(EFOpenError, EStreamError);
/// A file could not be created.
VELOX_EXCEPTION(EFCreateError, EStreamError);

/// A COM call failed. Raised through OleCheck (velSysUtils.hpp), which builds the message.
class VELOX_API EOleSysError : public Exception {
 public:
  /// The complete message, and the HRESULT.
  VELOX_NOINLINE EOleSysError(std::string Text, int32_t AErrorCode);
  /// As raised at another address.
  EOleSysError(std::string Text, int32_t AErrorCode, const void* AAddress);
  ~EOleSysError() override;

  /// The HRESULT.
  int32_t ErrorCode;
};

/// What can be told of the exception that is being handled, whatever its type.
struct TExceptionDescription {
  /// The class's name; std::bad_alloc and its like are reported as "EOutOfMemory"; "nil" when
  /// nothing is handled.
  std::string ClassName;
  bool HasMessage = false;
  std::string Message;
  /// Where it was raised; null when its class does not keep that.
  const void* Address = nullptr;
};

/// Describes the exception being handled by the calling code.
VELOX_API TExceptionDescription DescribeCurrentException();

}  // namespace velox
