#include "file_server.hpp"

#include <algorithm>

#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velFormat.hpp"

namespace velserve {

using namespace velox;

namespace {

constexpr int32_t Piece = 64 << 10;         // bytes of a file read at once
constexpr int32_t MostDiscarded = 1 << 20;  // bytes that a refused client may still send

// "Sun, 06 Nov 1994 08:49:37 GMT"
std::string DateNow() {
  constexpr const char* days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                    "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  SYSTEMTIME t;
  ::GetSystemTime(&t);
  return Format("%s, %02u %s %04u %02u:%02u:%02u GMT", days[t.wDayOfWeek], t.wDay,
                months[t.wMonth - 1], t.wYear, t.wHour, t.wMinute, t.wSecond);
}

std::wstring WideOf(const std::string& Text, UINT CodePage) {
  const int size = static_cast<int>(Text.size());
  std::wstring wide(
      static_cast<size_t>(::MultiByteToWideChar(CodePage, 0, Text.data(), size, nullptr, 0)),
      L'\0');
  ::MultiByteToWideChar(CodePage, 0, Text.data(), size, wide.data(), static_cast<int>(wide.size()));
  return wide;
}

}  // namespace

TFileServer::TFileServer(uint16_t Port, const std::string& Folder)
    : TTCPServer(Port), Folder_(WideOf(IncludeTrailingSeparator(Folder), CP_ACP)) {}

void TFileServer::ConnectionReceived(TTCPServerConnection& Connection) {
  TSession& session = Sessions_[&Connection];
  const int32_t size = Connection.GetDataSize();
  if (session.Discarding)
    return size - session.Taken > MostDiscarded ? Connection.Close() : Connection.Receive();
  session.Input.append(Connection.GetData().data() + session.Taken,
                       static_cast<size_t>(size - session.Taken));
  session.Taken = size;
  AnswerNext(Connection, session);
}

void TFileServer::ConnectionSend(TTCPServerConnection& Connection) {
  TSession& session = Sessions_[&Connection];
  if (session.Left > 0) return SendPiece(Connection, session, {});
  session.File = {};
  if (!session.Closing) return AnswerNext(Connection, session);
  // Closing with bytes unread would take the answer back. So the client is told that nothing more
  // comes, and may finish what it is sending.
  session.Discarding = true;
  ::shutdown(Connection.GetSocket(), SD_SEND);
  Connection.Receive();
}

void TFileServer::AnswerNext(TTCPServerConnection& Connection, TSession& Session) {
  const TParsed parsed = ParseRequest(Session.Input);
  if (parsed.Status == 0) return Connection.Receive();
  Session.Input.erase(0, parsed.Size);
  Session.Closing = parsed.Status != 200 || !parsed.Request.KeepAlive;
  Answer(Connection, Session, parsed);
}

void TFileServer::Answer(TTCPServerConnection& Connection, TSession& Session,
                         const TParsed& Parsed) {
  const bool head = Parsed.Request.Method == "HEAD";
  const auto refuse = [&](int Status, const std::string& Fields = "") {
    const std::string body = Format("%d %s\n", Status, std::string(ReasonOf(Status)).c_str());
    SendAnswer(Connection, Session, Status, "text/plain; charset=utf-8", Fields,
               head ? std::string_view() : body, body.size());
  };
  if (Parsed.Status != 200)
    return refuse(Parsed.Status, Parsed.Status == 405 ? "Allow: GET, HEAD\r\n" : "");
  const TPath path = PathOf(Parsed.Request.Target);
  if (!path.Name) return refuse(path.BadTarget ? 400 : 404);
  std::string name = *path.Name;
  const bool isFolder = name.empty() || name.back() == '\\';
  if (isFolder) name += "index.html";
  const std::wstring wide = WideOf(name, CP_UTF8);
  TFile file = OpenFile(wide);
  if (!file.Handle && !isFolder && IsFolder(wide)) {
    const std::string& target = Parsed.Request.Target;
    const size_t end = std::min(target.find_first_of("?#"), target.size());
    return refuse(301, "Location: " + target.substr(0, end) + "/" + target.substr(end) + "\r\n");
  }
  if (!file.Handle) return refuse(404);
  const uint64_t size = file.Size;
  Session.Left = head ? 0 : size;
  Session.File = std::move(file);
  SendAnswer(Connection, Session, 200, ContentTypeOf(name), "Accept-Ranges: none\r\n", {}, size);
}

void TFileServer::SendAnswer(TTCPServerConnection& Connection, TSession& Session, int Status,
                             std::string_view Type, const std::string& Fields,
                             std::string_view Body, uint64_t Size) {
  std::string answer =
      Format("HTTP/1.1 %d %s\r\nDate: %s\r\nContent-Type: %s\r\nContent-Length: %llu\r\n", Status,
             std::string(ReasonOf(Status)).c_str(), DateNow().c_str(), std::string(Type).c_str(),
             static_cast<unsigned long long>(Size));
  answer += Fields;
  answer += Session.Closing ? "Connection: close\r\n\r\n" : "Connection: keep-alive\r\n\r\n";
  answer += Body;
  SendPiece(Connection, Session, std::move(answer));
}

// Sends bytes and the next piece of the file behind them.
void TFileServer::SendPiece(TTCPServerConnection& Connection, TSession& Session,
                            std::string Bytes) {
  const auto piece = static_cast<DWORD>(std::min<uint64_t>(Piece, Session.Left));
  const size_t head = Bytes.size();
  Bytes.resize(head + piece);
  DWORD read = 0;
  if (piece > 0 &&
      !::ReadFile(Session.File.Handle.Get(), Bytes.data() + head, piece, &read, nullptr)) {
    TraceOSError("velserve: cannot read a file");
  } else if (read != piece) {
    Trace("velserve: a file became shorter while it was sent", TTraceType::ttError);
  }
  if (read != piece) return Connection.Close();  // the client sees that something is missing
  Session.Left -= piece;
  Session.Taken = static_cast<int32_t>(Bytes.size());
  Connection.Send(Bytes.data(), Session.Taken);
}

bool TFileServer::IsFolder(const std::wstring& Name) const {
  const DWORD attributes = ::GetFileAttributesW((Folder_ + Name).c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

TFile TFileServer::OpenFile(const std::wstring& Name) const {
  if (IsFolder(Name)) return {};
  TFile file{THandle(::CreateFileW((Folder_ + Name).c_str(), GENERIC_READ,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                   OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr))};
  LARGE_INTEGER size;
  if (!file.Handle || !::GetFileSizeEx(file.Handle.Get(), &size)) return {};
  file.Size = static_cast<uint64_t>(size.QuadPart);
  return file;
}

}  // namespace velserve
