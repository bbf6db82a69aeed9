#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "messages.hpp"
#include "progress.hpp"
#include "velox/runtime/velFileStream.hpp"

namespace velcopy {

/// What the command line asks for.
struct TArguments {
  bool Receiving = false;
  std::string Address, File;
  std::optional<int32_t> Size;
  std::optional<int32_t> Block;
  TShow Show = OnConsole() ? TShow::Bar : TShow::Lines;
};

/// The two sides. Raise Exception with a message for the user, after telling the other side.
void Send(const TArguments& Arguments);
void Receive(const TArguments& Arguments);

// ---- what both use

inline void PrintResult(const char* What, uint64_t Size, uint32_t Check) {
  std::printf("%s %llu bytes, CRC-32 %08X\n", What, static_cast<unsigned long long>(Size),
              static_cast<unsigned>(Check));
  std::fflush(stdout);
}

// What goes wrong with an open file (the disk is full, …) is told with the file's name.
template <typename TAction>
void OnFile(const velox::TFileStream& File, const TAction& Action) {
  try {
    Action();
  } catch (const velox::EStreamError& e) {
    throw velox::Exception(File.GetFileName() + ": " + e.what());
  }
}

inline void TellFailure(TPeer& Peer, TLink& Link, const velox::Exception& Failure) {
  if (dynamic_cast<const EPeerGone*>(&Failure) != nullptr) return;
  Peer.TellFailure(Failure);
  Link.Finish();
}

}  // namespace velcopy
