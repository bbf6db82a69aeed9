#include "velox/channels/velSharedMemChannel.hpp"

#include <exception>
#include <utility>

#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velMessages.hpp"

namespace velox {
namespace {

HANDLE NamedEvent(const std::string& Name) noexcept {
  return ::CreateEventA(nullptr, FALSE, FALSE, Name.c_str());
}

struct TBufferLock {
  explicit TBufferLock(TSharedMemBuffer& ABuffer) : Buffer(ABuffer) { Buffer.Lock(); }
  ~TBufferLock() { Buffer.Unlock(); }
  TSharedMemBuffer& Buffer;
};

}  // namespace

TSharedMemOperationQueue::~TSharedMemOperationQueue() { ReleaseMemory(); }

void TSharedMemOperationQueue::CreateMemory(const std::string& Name, int32_t Size,
                                            TChannelMode Mode) {
  ReleaseMemory();  // what a failed activation has left
  const bool server = Mode == TChannelMode::cmServer;
  const std::string ready = Name + "ReadyEvent";
  const std::string remoteReady = Name + "RemoteReadyEvent";
  ReadyEvent_.Reset(NamedEvent(server ? ready : remoteReady));
  if (!ReadyEvent_) RaiseLastOSError();
  // Without this one the other side is not woken; that side's own event is its affair.
  RemoteReadyEvent_.Reset(NamedEvent(server ? remoteReady : ready));

  auto buffer = std::make_unique<TSharedMemBuffer>(server);
  buffer->SetMemoryName(Name);
  buffer->CreateMemory(Size);
  buffer->SetOverwritable(true);
  Lock();
  Buffer_ = std::move(buffer);
  Unlock();
  ResumeThreshold_ = static_cast<int32_t>(int64_t{Size} * 5 / 10);
  ReadyReaction_ = std::make_unique<TEventReaction>(
      TReactor::GetInstance(), ReadyEvent_.Get(), nullptr,
      TReactionEvent::Bind<&TOperationQueue::DoChannelReady>(static_cast<TOperationQueue*>(this)));
  ReadyReaction_->SetActive(true);
}

void TSharedMemOperationQueue::IgnoreRemote() noexcept { ReadyReaction_.reset(); }

void TSharedMemOperationQueue::ReleaseMemory() noexcept {
  ReadyReaction_.reset();  // without the lock, which the reaction may be waiting for
  Lock();
  const std::unique_ptr<TSharedMemBuffer> buffer = std::move(Buffer_);
  Unlock();
  ReadyEvent_.Reset();
  RemoteReadyEvent_.Reset();
}

TSharedMemOperationQueueForReading::~TSharedMemOperationQueueForReading() { Close(); }

int32_t TSharedMemOperationQueueForReading::GetAvailableSize(const TTransferOperation&) {
  if (Buffer_ == nullptr) return 0;
  // The writer moves its position before it wakes this side, so nothing that a later wake-up will
  // not tell is missed.
  const ptrdiff_t count = Buffer_->GetTail() - Buffer_->GetHead();
  return static_cast<int32_t>(count < 0 ? count + Buffer_->GetSize() : count);
}

bool TSharedMemOperationQueueForReading::TransferData(TTransferOperation&, void* Data,
                                                      int32_t& Size) {
  const TBufferLock guard(*Buffer_);
  if (!RemoteBlocked_) RemoteBlocked_ = Buffer_->GetAvailable() == 0;
  Buffer_->ReadData(Data, Size);
  if (RemoteBlocked_ && Buffer_->GetCount() <= GetResumeThreshold()) {
    RemoteBlocked_ = false;
    SignalRemote();
  }
  return true;
}

TSharedMemOperationQueueForWriting::~TSharedMemOperationQueueForWriting() { Close(); }

int32_t TSharedMemOperationQueueForWriting::GetAvailableSize(const TTransferOperation&) {
  return Buffer_ == nullptr ? 0 : Buffer_->GetMaximalAvailable();
}

bool TSharedMemOperationQueueForWriting::TransferData(TTransferOperation&, void* Data,
                                                      int32_t& Size) {
  bool done;
  {
    const TBufferLock guard(*Buffer_);
    Buffer_->WriteData(Data, Size);
    done = Buffer_->GetMaximalAvailable() != 0;
  }
  SignalRemote();
  return done;
}

namespace {

TSharedMemOperationQueue& QueueOf(const TChannel& Channel, TOperationKind Kind) {
  return static_cast<TSharedMemOperationQueue&>(*Channel.GetOperationQueues(Kind));
}

}  // namespace

// The queues are kept for the life of the process.
TSharedMemChannel::TSharedMemChannel() {
  SetOperationQueues(TOperationKind::okRead, new TSharedMemOperationQueueForReading(*this));
  SetOperationQueues(TOperationKind::okWrite, new TSharedMemOperationQueueForWriting(*this));
  TSharedMemChannel::SetBandwidth(1048576);
}

TSharedMemChannel::~TSharedMemChannel() {
  Close();
  // After an activation that failed half-way, one of the two still has its block.
  for (const TOperationKind kind : {TOperationKind::okRead, TOperationKind::okWrite})
    QueueOf(*this, kind).ReleaseMemory();
}

void TSharedMemChannel::SetMemoryName(const std::string& Value) {
  CheckActive();
  MemoryName_ = Value;
}

void TSharedMemChannel::SetMemorySize(int32_t Value) {
  CheckActive();
  MemorySize_ = Value;
}

void TSharedMemChannel::SetMode(TChannelMode Value) {
  CheckActive();
  Mode_ = Value;
}

void TSharedMemChannel::InitializeQueues() {
  if (MemoryName_.empty()) throw Exception(messages::seSpecifyMemoryName);
  if (MemorySize_ <= 0) throw Exception(messages::seSpecifyMemorySize);
  const bool server = Mode_ == TChannelMode::cmServer;
  const std::string toServer = MemoryName_ + "Read";
  const std::string toClient = MemoryName_ + "Write";
  QueueOf(*this, TOperationKind::okRead)
      .CreateMemory(server ? toServer : toClient, MemorySize_, Mode_);
  try {
    QueueOf(*this, TOperationKind::okWrite)
        .CreateMemory(server ? toClient : toServer, MemorySize_, Mode_);
  } catch (...) {
    QueueOf(*this, TOperationKind::okRead).IgnoreRemote();
    throw;
  }
}

void TSharedMemChannel::FinalizeQueues() {
  std::exception_ptr first;
  for (const TOperationKind kind : {TOperationKind::okRead, TOperationKind::okWrite}) {
    TSharedMemOperationQueue& queue = QueueOf(*this, kind);
    try {
      queue.Finalize();
    } catch (...) {  // a handler raised; the memory is released all the same
      if (first == nullptr) first = std::current_exception();
    }
    queue.ReleaseMemory();
  }
  if (first != nullptr) std::rethrow_exception(first);
}

}  // namespace velox
