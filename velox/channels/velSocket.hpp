#pragma once

#include "velox/runtime/velWindows.hpp"

/// Sockets as the channels and servers use them.
namespace velox {

/// Processes that this one starts don't get the socket: they would keep its port taken, and its
/// connection open, when this process has closed it.
inline void KeepFromChildren(SOCKET Socket) noexcept {
  ::SetHandleInformation(reinterpret_cast<HANDLE>(Socket), HANDLE_FLAG_INHERIT, 0);
}

/// A socket of IPv4 for overlapped requests; INVALID_SOCKET, with the last error set, when the
/// system has none left.
inline SOCKET OverlappedSocket(int Type, int Protocol) noexcept {
  const SOCKET socket = ::WSASocketA(AF_INET, Type, Protocol, nullptr, 0, WSA_FLAG_OVERLAPPED);
  if (socket != INVALID_SOCKET) KeepFromChildren(socket);
  return socket;
}

}  // namespace velox
