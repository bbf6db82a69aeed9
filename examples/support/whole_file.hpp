#pragma once

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "velox/runtime/velFileStream.hpp"
#include "velox/runtime/velFormat.hpp"

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

/// Calls Write with the name of a temporary file beside FileName, which it is to fill, and then
/// gives that file the name FileName. Whatever fails, FileName is as it was before and the
/// temporary file is gone.
template <class TWrite>
void ReplaceFile(const std::string& FileName, const TWrite& Write) {
  const std::string temporary = FileName + ".part";
  std::error_code error;
  try {
    if (std::filesystem::is_directory(FileName)) {
      throw velox::EFCreateError(
          velox::Format("Cannot create file \"%s\". It is a folder", FileName.c_str()));
    }
    Write(temporary);
    std::filesystem::rename(temporary, FileName);
  } catch (const std::filesystem::filesystem_error& e) {
    std::filesystem::remove(temporary, error);
    throw velox::EFCreateError(velox::Format("Cannot create file \"%s\". %s", FileName.c_str(),
                                             e.code().message().c_str()));
  } catch (...) {
    std::filesystem::remove(temporary, error);
    throw;
  }
}

/// Makes these bytes the file's content.
inline void WriteWholeFile(const std::string& FileName, const void* Data, int32_t Size) {
  ReplaceFile(FileName, [&](const std::string& Temporary) {
    velox::TFileStream(Temporary, velox::TFileMode::fmCreate).WriteBuffer(Data, Size);
  });
}

}  // namespace example
