#include "velox/channels/velCommonChannel.hpp"

#include <cstdlib>
#include <utility>

#include "velox/channels/velChannelArithmetic.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velSharedLock.hpp"

namespace velox {

// Operations.

// One run of OnStart or OnTransferred. The handler may destroy the operation, which then must not
// be touched.
struct TTransferOperation::TWatch {
  explicit TWatch(TTransferOperation& AOperation)
      : Operation(AOperation), Outer(std::exchange(AOperation.Watch_, this)) {
    Operation.Events_.Begin();
    Operation.WatchThread_ = ::GetCurrentThreadId();
  }
  ~TWatch() {
    if (Destroyed) return;
    Operation.Watch_ = Outer;
    if (Outer == nullptr) Operation.WatchThread_ = 0;
    Operation.Events_.Finish();  // another thread may destroy it from here on
  }
  TTransferOperation& Operation;
  TWatch* const Outer;
  bool Destroyed = false;
};

TTransferOperation::~TTransferOperation() {
  Close();
  if (SelfAllocated_) std::free(Buffer_);
}

void TTransferOperation::Close() noexcept {
  FreeOnComplete_ = false;  // it is being destroyed already
  Closing_ = true;
  if (WatchThread_ == ::GetCurrentThreadId()) {
    for (TWatch* watch = std::exchange(Watch_, nullptr); watch != nullptr; watch = watch->Outer) {
      watch->Destroyed = true;
      Events_.Finish();
    }
    WatchThread_ = 0;
  }
  try {
    SetActive(false);
  } catch (...) {
    TraceException("[TTransferOperation.Destroy] completion error");
  }
  TOperationQueue::Detach(*this);
}

void TTransferOperation::CheckActive() const {
  if (Active_) throw Exception(messages::sePropertyOfActiveOperation);
}

void TTransferOperation::SetActive(bool Value) {
  if (Value == Active_) return;
  if (!Value) {
    if (!Departed_) Channel_->DeleteOperation(*this);
    return;
  }
  if (Size_ < 1 || Buffer_ == nullptr) {
    throw Exception(messages::seSpecifySizeAndBuffer);
  }
  if (Channel_ == nullptr) {
    throw Exception(messages::seSpecifyChannel);
  }
  if (!Channel_->GetActive()) throw Exception(messages::seChannelIsNotActive);
  Channel_->AddOperation(*this);
}

void TTransferOperation::SetKind(TOperationKind Value) {
  CheckActive();
  Kind_ = Value;
}

void TTransferOperation::SetChannel(TChannel* Value) {
  CheckActive();
  Channel_ = Value;
}

void TTransferOperation::SetBuffer(void* Value) {
  if (Value == Buffer_) return;
  CheckActive();
  SetSelfAllocated(false);
  Buffer_ = Value;
}

void TTransferOperation::SetSize(int32_t Value) {
  CheckActive();
  if (Value == Size_) return;
  if (SelfAllocated_) {
    if (Value <= 0) {
      std::free(std::exchange(Buffer_, nullptr));
    } else {
      void* resized = std::realloc(Buffer_, static_cast<size_t>(Value));
      if (resized == nullptr) throw EOutOfMemory();
      Buffer_ = resized;
    }
  }
  Size_ = Value;
}

void TTransferOperation::SetSelfAllocated(bool Value) {
  CheckActive();
  if (Value == SelfAllocated_) return;
  SetSize(0);
  Buffer_ = nullptr;
  SelfAllocated_ = Value;
}

void TTransferOperation::SetTimeout(int32_t Value) {
  CheckActive();
  if (Value >= 0) Timeout_ = Value;
}

void TTransferOperation::SetAutoTimeout(bool Value) {
  CheckActive();
  AutoTimeout_ = Value;
}

void TTransferOperation::SetFreeOnComplete(bool Value) {
  CheckActive();
  FreeOnComplete_ = Value;
}

void TTransferOperation::SetOnStart(const TOperationNotificationEvent& Value) {
  CheckActive();
  OnStart_ = Value;
}

void TTransferOperation::SetOnTransferred(const TOperationTransferEvent& Value) {
  CheckActive();
  OnTransferred_ = Value;
}

void TTransferOperation::SetOnComplete(const TOperationNotificationEvent& Value) {
  CheckActive();
  OnComplete_ = Value;
}

void TTransferOperation::DoStart() {
  if (!OnStart_) return;
  const TWatch watch(*this);
  OnStart_(this);
}

void TTransferOperation::DoTransferred() {
  if (!OnTransferred_) return;
  const TWatch watch(*this);
  bool reset = false;
  OnTransferred_(this, reset);
  if (!watch.Destroyed && reset) Transferred_ = 0;
}

void TTransferOperation::DoComplete() {
  if (OnComplete_) OnComplete_(this);
}

// Channels.

TChannel::~TChannel() = default;

void TChannel::SetActive(bool Value) {
  if (Value == Active_) return;
  if (Value) {
    if (Finalizing_) throw Exception("Channel is being deactivated");
    InitializeQueues();
    Active_ = true;
    if (OnActivate) OnActivate(this);
    return;
  }
  if (OnDeactivate) OnDeactivate(this);
  Deactivate();
}

void TChannel::Deactivate() {
  struct TFinalizing {
    explicit TFinalizing(std::atomic<bool>& AFlag) noexcept : Flag(AFlag) { Flag = true; }
    ~TFinalizing() { Flag = false; }
    std::atomic<bool>& Flag;
  } const finalizing(Finalizing_);
  Active_ = false;
  FinalizeQueues();
}

void TChannel::Close() noexcept {
  try {
    SetActive(false);
  } catch (...) {
    TraceException("[TChannel.Destroy] deactivation error");
  }
  try {
    if (Active_) Deactivate();  // OnDeactivate raised
  } catch (...) {
    TraceException("[TChannel.Destroy] deactivation error");
  }
  TOperationQueue::WaitForEvents(*Events_);
}

void TChannel::CheckActive() const {
  if (Active_) throw Exception(messages::seActiveChannel);
}

TClass TChannel::GetOperationClass() const { return TClass::Of<TTransferOperation>(); }

void TChannel::SetBandwidth(int32_t Value) { Bandwidth_.exchange(Value); }

void TChannel::SetLatence(int32_t Value) { Latence_.exchange(Value); }

int32_t TChannel::GetTimeout(int32_t Size) const {
  if (Size == 0) return 0;
  const int32_t transfer = MultiplyDivide(Size, 1000, Bandwidth_);
  return MultiplyDivide(AddWrapped(transfer, Latence_), 12, 10);
}

std::unique_ptr<TTransferOperation> TChannel::CreateOperation() {
  std::unique_ptr<TObject> made = GetOperationClass().Create();
  auto* operation = dynamic_cast<TTransferOperation*>(made.get());
  if (operation == nullptr) throw Exception(messages::seIncorrectParameters);
  made.release();
  std::unique_ptr<TTransferOperation> result(operation);
  result->SetChannel(this);
  return result;
}

namespace {

size_t QueueIndex(TOperationKind Kind) {
  const size_t index = static_cast<uint8_t>(Kind) & 0x7F;
  if (index > static_cast<size_t>(TOperationKind::okWrite)) {
    throw Exception(messages::seIncorrectParameters);
  }
  return index;
}

}  // namespace

TOperationQueue* TChannel::GetOperationQueues(TOperationKind Kind) const {
  return ReferTo(Kind).Queue;
}

void TChannel::SetOperationQueues(TOperationKind Kind, TOperationQueue* Queue) {
  TOperationQueue*& slot = OperationQueues_[QueueIndex(Kind)];
  const TForWriting guard(QueuesLock_);
  slot = Queue;
}

void TChannel::DestroyQueue(TOperationKind Kind) noexcept {
  TOperationQueue* const queue = OperationQueues_[QueueIndex(Kind)];
  if (queue == nullptr) return;
  queue->Close();
  SetOperationQueues(Kind, nullptr);
  delete queue;
}

TQueueReference TChannel::ReferTo(TOperationKind Kind) const {
  TOperationQueue* const& slot = OperationQueues_[QueueIndex(Kind)];
  const TForReading guard(QueuesLock_);
  if (slot == nullptr) return {};
  return {slot, slot->Shared_};
}

void TChannel::AddOperation(TTransferOperation& Operation) {
  if (!GetOperationClass().Includes(Operation)) throw Exception(messages::seIncorrectParameters);
  const TQueueReference queue = ReferTo(Operation.GetKind());
  if (queue.Queue == nullptr) throw Exception(messages::seChannelIsNotActive);
  TOperationQueue::AddOperation(queue, Operation);
}

void TChannel::DeleteOperation(TTransferOperation& Operation) {
  const TQueueReference queue = ReferTo(Operation.GetKind());
  if (queue.Queue != nullptr) TOperationQueue::CancelOperation(queue, Operation);
}

}  // namespace velox
