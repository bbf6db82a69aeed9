#include "velox/runtime/velFileStream.hpp"

#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace velox {
namespace {

HANDLE OpenFileFor(const std::string& FileName, TFileMode Mode) noexcept {
  const bool reads = Mode == TFileMode::fmOpenRead || Mode == TFileMode::fmOpenReadDenyWrite;
  const DWORD access = reads ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE;
  const DWORD share =
      Mode == TFileMode::fmOpenRead ? FILE_SHARE_READ | FILE_SHARE_WRITE : FILE_SHARE_READ;
  const DWORD disposition = Mode == TFileMode::fmCreate ? CREATE_ALWAYS : OPEN_EXISTING;
  return ::CreateFileA(FileName.c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                       nullptr);
}

std::string WithReason(const char* Text) {
  return std::string(Text) + ". " + SystemErrorMessage(::GetLastError());
}

}  // namespace

TFileStream::TFileStream(const std::string& FileName, TFileMode Mode)
    : FileName_(FileName), Handle_(OpenFileFor(FileName, Mode)) {
  if (Handle_) return;
  const std::string reason = SystemErrorMessage(::GetLastError());
  if (Mode == TFileMode::fmCreate) {
    throw EFCreateError(Format(messages::seCannotCreateFile, FileName.c_str(), reason.c_str()));
  }
  throw EFOpenError(Format(messages::seCannotOpenFile, FileName.c_str(), reason.c_str()));
}

TFileStream::~TFileStream() = default;

int32_t TFileStream::Read(void* Buffer, int32_t Count) {
  if (Count <= 0) return 0;
  DWORD done = 0;
  if (!::ReadFile(Handle_.Get(), Buffer, static_cast<DWORD>(Count), &done, nullptr)) {
    throw EReadError(WithReason(messages::seStreamRead));
  }
  return static_cast<int32_t>(done);
}

int32_t TFileStream::Write(const void* Buffer, int32_t Count) {
  if (Count <= 0) return 0;
  DWORD done = 0;
  if (!::WriteFile(Handle_.Get(), Buffer, static_cast<DWORD>(Count), &done, nullptr)) {
    throw EWriteError(WithReason(messages::seStreamWrite));
  }
  return static_cast<int32_t>(done);
}

int64_t TFileStream::Seek(int64_t Offset, TSeekOrigin Origin) {
  LARGE_INTEGER distance;
  distance.QuadPart = Offset;
  LARGE_INTEGER position;
  if (!::SetFilePointerEx(Handle_.Get(), distance, &position, static_cast<DWORD>(Origin))) {
    throw EStreamError(WithReason(messages::seStreamSeek));
  }
  return position.QuadPart;
}

int64_t TFileStream::GetSize() {
  LARGE_INTEGER size;
  if (!::GetFileSizeEx(Handle_.Get(), &size))
    throw EStreamError(WithReason(messages::seStreamRead));
  return size.QuadPart;
}

}  // namespace velox
