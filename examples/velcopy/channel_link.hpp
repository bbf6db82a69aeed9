#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "link.hpp"
#include "velox/async/velScheduler.hpp"
#include "velox/channels/velCommonChannel.hpp"
#include "velox/runtime/velHandle.hpp"

namespace velcopy {

/// A link over a channel that loses nothing and keeps the order. Each Write and Read is a transfer
/// operation: activated here, moved by the reactor's thread, and waited for on an event that
/// OnComplete sets. A task of the scheduler watches that none stands still.
class TChannelLink : public TLink {
 public:
  /// Peer is what the other side is called in messages. The channel may still be closed: a derived
  /// class then opens it before the first transfer.
  TChannelLink(std::unique_ptr<velox::TChannel> Channel, std::string Peer, int32_t Capacity);
  ~TChannelLink() override;

  void StartWatchdog() override { Watchdog_.SetActive(1); }
  void Write(const void* Bytes, int32_t Size) override;
  void Read(void* Bytes, int32_t Size) override;
  int32_t GetCapacity() const override { return Capacity_; }

 protected:
  velox::TChannel& GetChannel() const { return *Channel_; }
  /// Carries it, and returns whether it was carried whole; false after StillLimit, or a shorter
  /// Limit, without a byte.
  bool Carry(velox::TTransferOperation& Operation, void* Bytes, int32_t Size,
             int Limit = StillLimit);
  velox::TTransferOperation& Reader() { return *Reader_; }
  const std::string& GetPeer() const { return Peer_; }
  /// Why a transfer ended early by itself, for the user.
  virtual std::string ReasonOf(const velox::TTransferOperation& Operation) const;

 private:
  [[noreturn]] void TellWhy(const velox::TTransferOperation& Operation) const;
  std::unique_ptr<velox::TTransferOperation> MakeOperation(velox::TOperationKind Kind);
  void OnComplete(velox::TObject*);
  void OnTransferred(velox::TObject*, bool&);
  void OnSecond(velox::TObject*);

  const std::string Peer_;
  const int32_t Capacity_;
  const velox::THandle Done_;
  std::atomic<int> SecondsStill_ = 0;
  // Destroyed first, in reverse order: the task, then the operations, whose events use what stands
  // above.
  const std::unique_ptr<velox::TChannel> Channel_;
  const std::unique_ptr<velox::TTransferOperation> Reader_, Writer_;
  velox::TCallbackTask Watchdog_;
};

}  // namespace velcopy
