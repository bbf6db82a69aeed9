#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "http.hpp"
#include "velox/channels/velTCPServer.hpp"
#include "velox/runtime/velHandle.hpp"

namespace velserve {

/// A file that can be sent.
struct TFile {
  velox::THandle Handle;
  uint64_t Size = 0;
};

/// Serves the files of a folder, which must exist. What happens to a connection comes to it as
/// ConnectionAccepted, ConnectionReceived and ConnectionSend, all on the server's one thread, so it
/// needs no lock.
class TFileServer : public velox::TTCPServer {
 public:
  TFileServer(uint16_t Port, const std::string& Folder);
  ~TFileServer() override { Stop(); }

 protected:
  void ConnectionAccepted(velox::TTCPServerConnection& Connection) override {
    Sessions_[&Connection] = {};
    Connection.Receive();
  }
  void ConnectionReceived(velox::TTCPServerConnection& Connection) override;
  void ConnectionSend(velox::TTCPServerConnection& Connection) override;
  void ConnectionClosed(velox::TTCPServerConnection& Connection) override {
    Sessions_.erase(&Connection);
    velox::TTCPServer::ConnectionClosed(Connection);
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

  void AnswerNext(velox::TTCPServerConnection& Connection, TSession& Session);
  void Answer(velox::TTCPServerConnection& Connection, TSession& Session, const TParsed& Parsed);
  void SendAnswer(velox::TTCPServerConnection& Connection, TSession& Session, int Status,
                  std::string_view Type, const std::string& Fields, std::string_view Body,
                  uint64_t Size);
  void SendPiece(velox::TTCPServerConnection& Connection, TSession& Session, std::string Bytes);
  bool IsFolder(const std::wstring& Name) const;
  TFile OpenFile(const std::wstring& Name) const;

  const std::wstring Folder_;
  std::map<velox::TTCPServerConnection*, TSession> Sessions_;
};

}  // namespace velserve
