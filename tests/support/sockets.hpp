#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "velox/runtime/velWindows.hpp"

/// Plain sockets on this machine, for the other ends of what is tested.
namespace velox::test {

inline SOCKADDR_IN Loopback(uint16_t Port) {
  SOCKADDR_IN address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(Port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

/// The port that a socket is bound to.
inline uint16_t PortOf(SOCKET Socket) {
  SOCKADDR_IN address{};
  int length = sizeof address;
  ::getsockname(Socket, reinterpret_cast<SOCKADDR*>(&address), &length);
  return ntohs(address.sin_port);
}

/// A socket with blocking calls, closed at the end.
struct TSocket {
  explicit TSocket(int Type) : Handle(::socket(AF_INET, Type, 0)) {}
  explicit TSocket(SOCKET AHandle) : Handle(AHandle) {}
  TSocket(TSocket&& Other) noexcept : Handle(std::exchange(Other.Handle, INVALID_SOCKET)) {}
  ~TSocket() { Close(); }
  void Close() {
    if (Handle != INVALID_SOCKET) ::closesocket(std::exchange(Handle, INVALID_SOCKET));
  }
  /// Binds it to a port that the system chooses, and gives that.
  uint16_t Bind() const {
    const SOCKADDR_IN address = Loopback(0);
    ::bind(Handle, reinterpret_cast<const SOCKADDR*>(&address), sizeof address);
    return PortOf(Handle);
  }
  bool Connect(uint16_t Port) const {
    const SOCKADDR_IN address = Loopback(Port);
    return ::connect(Handle, reinterpret_cast<const SOCKADDR*>(&address), sizeof address) == 0;
  }
  /// Has what is received fail after so many milliseconds.
  void SetLimit(DWORD Limit) const {
    ::setsockopt(Handle, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char*>(&Limit), sizeof Limit);
  }
  bool SendTo(const SOCKADDR_IN& Address, const std::string& Data) const {
    const int size = static_cast<int>(Data.size());
    return ::sendto(Handle, Data.data(), size, 0, reinterpret_cast<const SOCKADDR*>(&Address),
                    sizeof Address) == size;
  }
  bool SendTo(uint16_t Port, const std::string& Data) const { return SendTo(Loopback(Port), Data); }
  bool Send(const std::string& Data) const {
    const int size = static_cast<int>(Data.size());
    return ::send(Handle, Data.data(), size, 0) == size;
  }
  /// So many bytes, or those that came before the other side closed.
  std::string Receive(size_t Size) const {
    std::string data(Size, '\0');
    size_t got = 0;
    while (got < Size) {
      const int n = ::recv(Handle, data.data() + got, static_cast<int>(Size - got), 0);
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    data.resize(got);
    return data;
  }
  SOCKET Handle;
};

}  // namespace velox::test
