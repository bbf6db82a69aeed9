#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "velox/runtime/velFileStream.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velSystemMessage.hpp"
#include "velox/runtime/velWindows.hpp"

/// Files that a program reads or writes at one go.
namespace example {

/// All bytes of a file of less than 2 GiB.
inline std::vector<uint8_t> ReadWholeFile(const std::string& FileName) {
  velox::TFileStream file(FileName, velox::TFileMode::fmOpenRead);
  const int64_t size = file.GetSize();
  if (size > std::numeric_limits<int32_t>::max()) {
    throw velox::Exception(
        velox::Format("%s: files of 2 GiB and more are not supported", FileName.c_str()));
  }
  std::vector<uint8_t> bytes(static_cast<size_t>(size));
  file.ReadBuffer(bytes.data(), static_cast<int32_t>(size));
  return bytes;
}

/// A program's output under a passing name beside its own until Keep() gives it that; otherwise it
/// is removed. Whatever fails, a file that had the name before is as it was.
class TOutputFile {
 public:
  /// Creates the temporary file, which is empty. Raises EFCreateError; it does so, too, when a file
  /// of the passing name exists already.
  explicit TOutputFile(const std::string& Name)
      : Name_(Name), Temporary_(Name + velox::Format(".%lu.part", ::GetCurrentProcessId())) {
    const velox::THandle file(::CreateFileA(Temporary_.c_str(), GENERIC_WRITE, 0, nullptr,
                                            CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file.Get() == INVALID_HANDLE_VALUE) Fail(Temporary_);
  }
  ~TOutputFile() {
    if (!Kept_) ::DeleteFileA(Temporary_.c_str());
  }
  TOutputFile(const TOutputFile&) = delete;
  TOutputFile& operator=(const TOutputFile&) = delete;

  /// The file to write: in the same folder, so that moving it is a mere change of name.
  const std::string& GetTemporary() const { return Temporary_; }

  /// Makes what was written the file, which must be closed. Raises EFCreateError.
  void Keep() {
    if (!::MoveFileExA(Temporary_.c_str(), Name_.c_str(), MOVEFILE_REPLACE_EXISTING)) Fail(Name_);
    Kept_ = true;
  }

 private:
  [[noreturn]] static void Fail(const std::string& Name) {
    const DWORD error = ::GetLastError();
    throw velox::EFCreateError(velox::Format("Cannot create file \"%s\". %s", Name.c_str(),
                                             velox::SystemErrorMessage(error).c_str()));
  }

  std::string Name_;
  std::string Temporary_;
  bool Kept_ = false;
};

/// Makes these bytes the file's content.
inline void WriteWholeFile(const std::string& FileName, const void* Data, int32_t Size) {
  TOutputFile out(FileName);
  velox::TFileStream(out.GetTemporary(), velox::TFileMode::fmCreate).WriteBuffer(Data, Size);
  out.Keep();
}

}  // namespace example
