#pragma once

#include <string>

#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velStream.hpp"

namespace velox {

/// How a file is opened.
enum class TFileMode : uint8_t {
  fmCreate,             ///< makes a new file, or empties the one there is; for reading and writing
  fmOpenRead,           ///< an existing file, for reading
  fmOpenReadDenyWrite,  ///< an existing file, for reading, that nobody writes meanwhile
  fmOpenReadWrite       ///< an existing file, for reading and writing
};

/// A stream over a file. Others may read the file meanwhile; a file opened with fmOpenRead may also
/// be written by others.
class VELOX_API TFileStream : public TStream {
 public:
  /// Raises EFCreateError or EFOpenError with the file's name and the system's reason.
  TFileStream(const std::string& FileName, TFileMode Mode);
  ~TFileStream() override;

  int32_t Read(void* Buffer, int32_t Count) override;  ///< raises EReadError when the device fails
  int32_t Write(const void* Buffer,
                int32_t Count) override;  ///< raises EWriteError, with the reason (disk full, …)
  int64_t Seek(int64_t Offset,
               TSeekOrigin Origin) override;  ///< raises EStreamError before the beginning
  int64_t GetSize() override;

  /// As given to the constructor.
  const std::string& GetFileName() const noexcept { return FileName_; }
  /// The file's handle, which belongs to the stream.
  HANDLE GetHandle() const noexcept { return Handle_.Get(); }

 private:
  std::string FileName_;
  THandle Handle_;
};

}  // namespace velox
