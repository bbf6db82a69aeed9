// Serves the files of a folder over HTTP/1.1.
//
//     velserve 8080 C:\site
//
// TFileServer is a TTCPServer: what happens to a connection comes to it as ConnectionAccepted,
// ConnectionReceived and ConnectionSend, all on the server's one thread, so it needs no lock. It
// reads requests (http.cpp), in whatever pieces they come, and answers one after the other.

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "http.hpp"
#include "velox/channels/velTCPServer.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velSystemMessage.hpp"

using namespace velox;
using namespace velserve;

namespace {

constexpr int32_t Piece = 64 << 10;         // bytes of a file read at once
constexpr int32_t MostDiscarded = 1 << 20;  // bytes that a refused client may still send
constexpr double SecondsADay = 86400;

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

// A file that can be sent.
struct TFile {
  THandle Handle;
  uint64_t Size = 0;
};

class TFileServer : public TTCPServer {
 public:
  TFileServer(uint16_t Port, const std::string& Folder)
      : TTCPServer(Port), Folder_(WideOf(IncludeTrailingSeparator(Folder), CP_ACP)) {}
  ~TFileServer() override { Stop(); }

 protected:
  void ConnectionAccepted(TTCPServerConnection& Connection) override {
    Sessions_[&Connection] = {};
    Connection.Receive();
  }
  void ConnectionReceived(TTCPServerConnection& Connection) override;
  void ConnectionSend(TTCPServerConnection& Connection) override;
  void ConnectionClosed(TTCPServerConnection& Connection) override {
    Sessions_.erase(&Connection);
    TTCPServer::ConnectionClosed(Connection);
  }

 private:
  struct TSession {
    std::string Input;     // received, not answered yet
    int32_t Taken = 0;     // bytes of the connection's buffer that were taken from it
    TFile File;            // being sent, and
    uint64_t Left = 0;     // what is left of it
    bool Closing = false;  // after the answer that is being sent
    bool Discarding = false;
  };

  void AnswerNext(TTCPServerConnection& Connection, TSession& Session);
  void Answer(TTCPServerConnection& Connection, TSession& Session, const TParsed& Parsed);
  void SendAnswer(TTCPServerConnection& Connection, TSession& Session, int Status,
                  std::string_view Type, const std::string& Fields, std::string_view Body,
                  uint64_t Size);
  void SendPiece(TTCPServerConnection& Connection, TSession& Session, std::string Bytes);
  bool IsFolder(const std::wstring& Name) const;
  TFile OpenFile(const std::wstring& Name) const;

  const std::wstring Folder_;
  std::map<TTCPServerConnection*, TSession> Sessions_;
};

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

// ---- command line

constexpr const char* Usage =
    "velserve PORT FOLDER [--idle SECONDS]\n"
    "\n"
    "Serves the files of FOLDER over HTTP until Ctrl+C. PORT 0 takes any free port, which is "
    "told.\n"
    "A client that is silent for SECONDS (default 30) is disconnected.\n";

[[noreturn]] void Refuse(const std::string& What) {
  throw Exception(What + "; see velserve --help");
}

int ParseNumber(const std::string& What, const std::string& Text, int Least, int Most) {
  int value = 0;
  const char* const end = Text.data() + Text.size();
  const auto [stop, error] = std::from_chars(Text.data(), end, value);
  if (error == std::errc() && stop == end && value >= Least && value <= Most) return value;
  Refuse(Format("%s must be a number from %d to %d, not \"%s\"", What.c_str(), Least, Most,
                Text.c_str()));
}

HANDLE StopRequest() {
  static const HANDLE event = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
  return event;
}

BOOL WINAPI OnConsoleControl(DWORD) {
  ::SetEvent(StopRequest());
  return TRUE;
}

void Serve(const std::vector<std::string>& Words) {
  std::vector<std::string> plain;
  int idle = 30;
  for (size_t i = 0; i < Words.size(); ++i) {
    if (Words[i].substr(0, 2) != "--") {
      plain.push_back(Words[i]);
    } else if (Words[i] != "--idle") {
      Refuse("unknown option " + Words[i]);
    } else if (++i == Words.size()) {
      Refuse("--idle needs a value");
    } else {
      idle = ParseNumber("--idle", Words[i], 1, 86400);
    }
  }
  if (plain.size() != 2) Refuse("a port and a folder are needed");
  const int port = ParseNumber("the port", plain[0], 0, 65535);
  const DWORD attributes = ::GetFileAttributesA(plain[1].c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
    throw Exception("there is no folder " + plain[1]);
  TFileServer server(static_cast<uint16_t>(port), plain[1]);
  server.SetIdleTimeout(idle / SecondsADay);
  try {
    server.Start();
  } catch (const EOSError& e) {
    throw Exception(Format("cannot listen on port %d: ", port) + SystemErrorMessage(e.ErrorCode));
  }
  SOCKADDR_IN address{};
  int length = sizeof address;
  ::getsockname(server.GetSocket(), reinterpret_cast<SOCKADDR*>(&address), &length);
  ::SetConsoleCtrlHandler(&OnConsoleControl, TRUE);
  std::printf("serving %s on http://localhost:%u/\n", plain[1].c_str(), ntohs(address.sin_port));
  std::fflush(stdout);
  WaitForSingleObjectAlertable(StopRequest(), "velserve");
  std::printf("stopped\n");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (std::find(words.begin(), words.end(), "--help") != words.end()) {
      std::fputs(Usage, stdout);
      return 0;
    }
    Serve(words);
    return 0;
  } catch (const std::exception& e) {
    TraceException("velserve");
    std::fprintf(stderr, "velserve: %s\n", e.what());
    return 1;
  }
}
