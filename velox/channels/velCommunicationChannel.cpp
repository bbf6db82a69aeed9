#include "velox/channels/velCommunicationChannel.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <exception>
#include <mutex>
#include <utility>

#include "velox/channels/velPendingRequest.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velCallbackGuard.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velMessages.hpp"
#include "velox/runtime/velSharedLock.hpp"

namespace velox {
namespace {

constexpr std::array<uint32_t, 17> Rates{110,    300,    600,    1200,   2400,  4800,
                                         9600,   14400,  19200,  38400,  56000, 57600,
                                         115200, 128000, 256000, 460800, 921600};

uint32_t RateOf(TCommBaudRate BaudRate) noexcept { return Rates.at(static_cast<size_t>(BaudRate)); }

// A rate of 921600 can be set, but is not taken over from a port.
TCommBaudRate BaudRateOf(uint32_t Rate) {
  const auto end = Rates.end() - 1;
  const auto found = std::find(Rates.begin(), end, Rate);
  if (found == end) throw Exception(Format(messages::seIncorrectValueFor, "baud rate"));
  return static_cast<TCommBaudRate>(found - Rates.begin());
}

template <class E>
E ValueOf(uint32_t Value, E Last, const char* What) {
  if (Value > static_cast<uint32_t>(Last))
    throw Exception(Format(messages::seIncorrectValueFor, What));
  return static_cast<E>(Value);
}

bool IsOpen(HANDLE Handle) noexcept { return Handle != INVALID_HANDLE_VALUE; }

}  // namespace

// --- Line settings ---

TCommunicationDCB::~TCommunicationDCB() {
  if (IsOpen(FileHandle_)) ::SetCommState(FileHandle_, &Prior_);
}

void TCommunicationDCB::SetFileHandle(HANDLE Value) {
  if (Value == FileHandle_) return;
  if (IsOpen(FileHandle_)) ::SetCommState(FileHandle_, &Prior_);
  FileHandle_ = Value;
  if (!IsOpen(FileHandle_)) return;
  Prior_ = {};
  Prior_.DCBlength = sizeof Prior_;
  if (!::GetCommState(FileHandle_, &Prior_)) {
    FileHandle_ = INVALID_HANDLE_VALUE;  // there is nothing to give back
    RaiseLastOSError();
  }
  Apply();
}

void TCommunicationDCB::Apply() {
  if (!IsOpen(FileHandle_)) return;
  if (UpdateCount_ < 1) return Write();
  Modified_ = true;
}

void TCommunicationDCB::Write() const {
  DCB block = EncodeDCB();
  if (!::SetCommState(FileHandle_, &block)) RaiseLastOSError();
}

void TCommunicationDCB::EndUpdate() {
  if (--UpdateCount_ != 0 || !Modified_ || !IsOpen(FileHandle_)) return;
  Write();
  Modified_ = false;
}

DCB TCommunicationDCB::EncodeDCB() const noexcept {
  const TSettings& s = Settings_;
  DCB block{};
  block.DCBlength = sizeof block;
  block.BaudRate = RateOf(s.BaudRate);
  block.fBinary = s.Binary;
  block.fParity = s.EnableParity;
  block.fOutxCtsFlow = s.OutxCtsFlow;
  block.fOutxDsrFlow = s.OutxDsrFlow;
  block.fDtrControl = static_cast<uint32_t>(s.DtrControl) & 3;
  block.fDsrSensitivity = s.DsrSensitivity;
  block.fTXContinueOnXoff = s.TXContinueOnXoff;
  block.fOutX = s.OutX;
  block.fInX = s.InX;
  block.fErrorChar = s.EnableErrorChar;
  block.fNull = s.EnableNull;
  block.fRtsControl = static_cast<uint32_t>(s.RtsControl) & 3;
  block.fAbortOnError = s.AbortOnError;
  block.XonLim = s.XonLim;
  block.XoffLim = s.XoffLim;
  block.ByteSize = s.ByteSize;
  block.Parity = static_cast<BYTE>(s.ParityScheme);
  block.StopBits = static_cast<BYTE>(s.StopBits);
  block.XonChar = static_cast<char>(s.XonChar);
  block.XoffChar = static_cast<char>(s.XoffChar);
  block.ErrorChar = static_cast<char>(s.ErrorChar);
  block.EofChar = static_cast<char>(s.EofChar);
  block.EvtChar = static_cast<char>(s.EvtChar);
  return block;
}

void TCommunicationDCB::DecodeDCB(const DCB& Block) {
  TSettings s;
  s.BaudRate = BaudRateOf(Block.BaudRate);
  s.Binary = Block.fBinary != 0;
  s.EnableParity = Block.fParity != 0;
  s.OutxCtsFlow = Block.fOutxCtsFlow != 0;
  s.OutxDsrFlow = Block.fOutxDsrFlow != 0;
  s.DtrControl = ValueOf(Block.fDtrControl, TCommDtrControl::dtrHandshake, "dtr control");
  s.DsrSensitivity = Block.fDsrSensitivity != 0;
  s.TXContinueOnXoff = Block.fTXContinueOnXoff != 0;
  s.OutX = Block.fOutX != 0;
  s.InX = Block.fInX != 0;
  s.EnableErrorChar = Block.fErrorChar != 0;
  s.EnableNull = Block.fNull != 0;
  s.RtsControl = ValueOf(Block.fRtsControl, TCommRtsControl::rtsToggle, "rts control");
  s.AbortOnError = Block.fAbortOnError != 0;
  s.XonLim = Block.XonLim;
  s.XoffLim = Block.XoffLim;
  s.ByteSize = Block.ByteSize;
  s.ParityScheme = ValueOf(Block.Parity, TCommParityScheme::cpSpace, "parity");
  s.StopBits = ValueOf(Block.StopBits, TCommStopBits::csbTwo, "stop bits");
  s.XonChar = static_cast<uint8_t>(Block.XonChar);
  s.XoffChar = static_cast<uint8_t>(Block.XoffChar);
  s.ErrorChar = static_cast<uint8_t>(Block.ErrorChar);
  s.EofChar = static_cast<uint8_t>(Block.EofChar);
  s.EvtChar = static_cast<uint8_t>(Block.EvtChar);
  Settings_ = s;
}

int32_t TCommunicationDCB::GetBandwidth() const noexcept {
  const int32_t bits = Settings_.ByteSize + 2 +
                       (Settings_.ParityScheme == TCommParityScheme::cpNone ? 0 : 1) +
                       (Settings_.StopBits == TCommStopBits::csbOne ? 0 : 1);
  return static_cast<int32_t>(RateOf(Settings_.BaudRate)) / bits;
}

// --- Timeouts ---

TCommunicationTimeouts::~TCommunicationTimeouts() {
  if (IsOpen(FileHandle_)) ::SetCommTimeouts(FileHandle_, &Prior_);
}

void TCommunicationTimeouts::SetFileHandle(HANDLE Value) {
  if (Value == FileHandle_) return;
  if (IsOpen(FileHandle_)) ::SetCommTimeouts(FileHandle_, &Prior_);
  FileHandle_ = Value;
  if (!IsOpen(FileHandle_)) return;
  if (!::GetCommTimeouts(FileHandle_, &Prior_)) {
    FileHandle_ = INVALID_HANDLE_VALUE;
    RaiseLastOSError();
  }
  Apply();
}

void TCommunicationTimeouts::Assign(uint32_t& Field, uint32_t Value) {
  if (Field == Value) return;
  Field = Value;
  Apply();
}

void TCommunicationTimeouts::Apply() noexcept {
  if (IsOpen(FileHandle_) && UpdateCount_ >= 1) Modified_ = true;
}

void TCommunicationTimeouts::EndUpdate() {
  if (--UpdateCount_ != 0 || !Modified_ || !IsOpen(FileHandle_)) return;
  COMMTIMEOUTS timeouts{ReadIntervalTimeout_, ReadTotalTimeoutMultiplier_,
                        ReadTotalTimeoutConstant_, WriteTotalTimeoutMultiplier_,
                        WriteTotalTimeoutConstant_};
  if (!::SetCommTimeouts(FileHandle_, &timeouts)) RaiseLastOSError();
  Modified_ = false;
}

// --- Queues ---

/// A request to the port and its block, which both outlive the queue while the port works on them.
class TCommunicationOperationQueue::TRequest : public TPendingRequest {
 public:
  explicit TRequest(TCommunicationOperationQueue& AQueue)
      : Target(AQueue.GetReference()), Queue(&AQueue) {}

  DWORD Size() const noexcept { return static_cast<DWORD>(Block.size()); }

  static void CALLBACK Completed(DWORD Error, DWORD Transferred, OVERLAPPED* Overlapped) noexcept;
  static void CALLBACK CompleteRefused(ULONG_PTR Request) noexcept;
  /// Has its end told to this thread, though the port did not take it. False when that is
  /// impossible.
  bool TellRefused() noexcept {
    return TraceAndQueueUserAPC(&CompleteRefused, ::GetCurrentThread(),
                                reinterpret_cast<ULONG_PTR>(this)) != 0;
  }

  const TQueueReference Target;
  TCommunicationOperationQueue* const Queue;  // may be gone; Target tells
  std::vector<char> Block;
  DWORD Received = 0;  // bytes of the block that a read has filled, and
  DWORD Taken = 0;     // those of them that operations have got
};

/// The end of a request on its way to the queue.
struct TCommunicationOperationQueue::TCompletion : TObject {
  TCompletion() noexcept = default;
  TCompletion(TRequest& ARequest, DWORD AError, DWORD ATransferred) noexcept
      : Request(&ARequest), Error(AError), Transferred(ATransferred) {}
  TRequest* Request = nullptr;
  DWORD Error = 0;
  DWORD Transferred = 0;
  bool Taken = false;
};

void TCommunicationOperationQueue::TFreeRequest::operator()(TRequest* Request) const noexcept {
  Request->Orphan();
}

void CALLBACK TCommunicationOperationQueue::TRequest::Completed(DWORD Error, DWORD Transferred,
                                                                OVERLAPPED* Overlapped) noexcept {
  auto* const request = static_cast<TRequest*>(Of(Overlapped));
  if (request->Leave(false)) return;
  const TCallbackScope scope;
  // Of a request that failed the routine is told 0 bytes, whatever it has carried.
  if (Error != 0)
    Transferred = std::min(static_cast<DWORD>(Overlapped->InternalHigh), request->Size());
  try {
    TCompletion completion(*request, Error, Transferred);
    DoIOComplete_WinNT(completion);
  } catch (...) {
    TraceException("IOComplete error");
  }
}

/// Ends a request that the port did not take.
void CALLBACK TCommunicationOperationQueue::TRequest::CompleteRefused(ULONG_PTR Request) noexcept {
  auto* const request = reinterpret_cast<TRequest*>(Request);
  if (request->Leave(false)) return;
  try {
    TCompletion completion(*request, ERROR_NOACCESS, 0);
    DoIOComplete_WinNT(completion);
  } catch (const Exception&) {
    TraceException("TIOCompleteCall_Run error");
  } catch (...) {
    TraceException("TIOCompleteCall_Run unknown error");
  }
}

TCommunicationOperationQueue::TCommunicationOperationQueue(TCommunicationChannel& Channel,
                                                           bool IsNT)
    : TOperationQueue(Channel), IsNT_(IsNT) {
  if (IsNT_) return;
  CompletionEvent_.Reset(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
  if (!CompletionEvent_) RaiseLastOSError();
  CompletionReaction_ = std::make_unique<TEventReaction>(
      TReactor::GetInstance(), CompletionEvent_.Get(), nullptr,
      TReactionEvent::Bind<&TCommunicationOperationQueue::DoIOComplete_Win9X>(this));
  CompletionReaction_->SetActive(true);
}

TCommunicationOperationQueue::~TCommunicationOperationQueue() { CompletionReaction_.reset(); }

TCommunicationChannel& TCommunicationOperationQueue::GetPortChannel() const noexcept {
  return static_cast<TCommunicationChannel&>(GetChannel());
}

DWORD TCommunicationOperationQueue::GetInputCount(const TTransferOperation& Operation) {
  DWORD errors = 0;
  COMSTAT status{};
  DWORD error = 0;
  {
    const TForReading guard(GetPortChannel().HandleLock_);
    if (!::ClearCommError(GetPortChannel().Handle_, &errors, &status)) error = ::GetLastError();
  }
  if (error != 0) Fail(Operation, error);
  return status.cbInQue;
}

bool TCommunicationOperationQueue::IsHeldUp(const TTransferOperation& Operation) noexcept {
  // The end of a request that a thread made which has ended itself is never told.
  if (IsNT_ && Request_ != nullptr && Request_->IsForsaken()) Request_.reset();
  return (Request_ != nullptr && Request_->Pending) || Failed_ == &Operation;
}

TCommunicationOperationQueue::TRequest& TCommunicationOperationQueue::NewRequest(int32_t Size) {
  if (Request_ == nullptr) Request_.reset(new TRequest(*this));
  Request_->Block.resize(static_cast<size_t>(Size));
  Request_->Received = Request_->Taken = 0;
  return *Request_;
}

void TCommunicationOperationQueue::StartRequest(TTransferOperation& Operation) {
  TRequest& request = *Request_;
  request.PrepareRequest();
  if (!IsNT_) request.Overlapped.hEvent = CompletionEvent_.Get();
  request.Pending = true;
  CurrentOperation_ = &Operation;
  DWORD error = 0;
  {
    const TForReading guard(GetPortChannel().HandleLock_);
    if (!Submit(GetPortChannel().Handle_, request)) error = ::GetLastError();
  }
  if (error == 0 || error == ERROR_IO_PENDING || Refused(request, error)) return;
  request.Pending = false;
  CurrentOperation_ = nullptr;
  RequestData_ = nullptr;
  Fail(Operation, error);
}

bool TCommunicationOperationQueue::Refused(TRequest&, DWORD) { return false; }

/// Nothing is going to move this operation any more, and it may have no time limit. What is raised
/// ends the run of the queue, so it is another run that ends the operation.
void TCommunicationOperationQueue::Fail(const TTransferOperation& Operation, DWORD Error) {
  Failed_ = &Operation;
  CompletedSize_ = 0;
  if (!IsNT_) {
    ::SetEvent(CompletionEvent_.Get());
  } else {
    TRequest& request = NewRequest(0);
    request.PrepareRequest();
    request.Pending = request.TellRefused();
  }
  RaiseLastOSErrorEx(static_cast<int32_t>(Error));
}

/// A request may go on after its operation is gone. Its end is awaited before the next is made, and
/// a read leaves what it still gets to the next operation.
void TCommunicationOperationQueue::CancelTransfer() {
  TOperationQueue::CancelTransfer();
  CompletedSize_ = 0;
  RequestData_ = nullptr;
  CurrentOperation_ = nullptr;
  Failed_ = nullptr;
  if (Request_ == nullptr || !Request_->Pending) return;
  const TForReading guard(GetPortChannel().HandleLock_);
  ::CancelIoEx(GetPortChannel().Handle_, &Request_->Overlapped);
}

/// The reaction to the event. The request is looked at under the lock, for another thread may close
/// the port and free it meanwhile.
void TCommunicationOperationQueue::DoIOComplete_Win9X(TObject*) {
  TCompletion completion;
  Complete(
      GetReference(),
      TProcessOperationsProcedure::Bind<&TCommunicationOperationQueue::TakeOverlappedResult>(this),
      completion);
}

void TCommunicationOperationQueue::TakeOverlappedResult(int32_t& ACompletedIndex,
                                                        int32_t& ACompletedCount,
                                                        TObject* AParameter) {
  auto& completion = *static_cast<TCompletion*>(AParameter);
  if (Request_ != nullptr && Request_->Pending) {
    completion.Request = Request_.get();
    const TForReading guard(GetPortChannel().HandleLock_);
    if (!::GetOverlappedResult(GetPortChannel().Handle_, &Request_->Overlapped,
                               &completion.Transferred, FALSE)) {
      completion.Error = ::GetLastError();
      if (completion.Error == ERROR_IO_INCOMPLETE) return;
    }
  }
  ::ResetEvent(CompletionEvent_.Get());
  if (completion.Request != nullptr) TakeCompletion(ACompletedIndex, ACompletedCount, AParameter);
}

void TCommunicationOperationQueue::DoIOComplete_WinNT(TCompletion& Completion) {
  const TRequest& request = *Completion.Request;
  struct TLeave {
    ~TLeave() {
      if (!Completion.Taken) Completion.Request->Leave(true);
    }
    TCompletion& Completion;
  };
  const TLeave leave{Completion};  // an event of the operation may raise
  Complete(request.Target,
           TProcessOperationsProcedure::Bind<&TCommunicationOperationQueue::TakeCompletion>(
               request.Queue),
           Completion);
}

/// What follows the end of a request, once Take has taken it; the queue may be gone by now.
void TCommunicationOperationQueue::Complete(const TQueueReference& Target,
                                            const TProcessOperationsProcedure& Take,
                                            TCompletion& Completion) {
  using TSelf = TCommunicationOperationQueue;
  auto* const queue = static_cast<TSelf*>(Target.Queue);
  RunOnReactor(Target,
               {Take, TProcessOperationsProcedure::Bind<&TSelf::CarryOn>(queue),
                TProcessOperationsProcedure::Bind<&TSelf::EndFailed>(queue)},
               &Completion);
}

/// First thing when a request has ended.
void TCommunicationOperationQueue::TakeCompletion(int32_t&, int32_t&, TObject* AParameter) {
  auto& completion = *static_cast<TCompletion*>(AParameter);
  if (completion.Request != Request_.get() || !Request_->Pending) return;
  completion.Taken = true;
  Request_->Pending = false;
  Request_->Received = completion.Transferred;
  CompletedSize_ = 0;
  const bool fine = Ended(*Request_, completion.Error);
  RequestData_ = nullptr;
  TTransferOperation* const operation = std::exchange(CurrentOperation_, nullptr);
  if (!fine) Failed_ = operation;
}

/// Then: the bytes are booked, and the next request is made.
void TCommunicationOperationQueue::CarryOn(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                                           TObject* AParameter) {
  if (static_cast<TCompletion*>(AParameter)->Taken || Failed_ != nullptr)
    TransferOperationData(ACompletedIndex, ACompletedCount, nullptr);
}

/// Then: an operation whose request failed goes, with what was booked. The next one is started when
/// this one has been told so: should that fail too, it is an exception, which would drop this one.
void TCommunicationOperationQueue::EndFailed(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                                             TObject*) {
  const TTransferOperation* const operation = std::exchange(Failed_, nullptr);
  if (operation == nullptr || GetOperationIndex(*operation) != 0) return;
  TerminateOperation(ACompletedIndex, ACompletedCount, const_cast<TTransferOperation*>(operation));
  ScheduleOperationQueueChanged();
}

void TCommunicationOperationQueue::Forget() noexcept {
  for (;;) {
    {
      Lock();
      const bool working = Request_ != nullptr && Request_->Pending && !IsNT_ &&
                           !HasOverlappedIoCompleted(&Request_->Overlapped);
      if (!working) {
        if (!IsNT_ && Request_ != nullptr) Request_->Pending = false;
        Request_.reset();
        CompletedSize_ = 0;
      }
      Unlock();
      if (!working) return;
    }
    // Without completion routines nobody else would free the request.
    ::WaitForSingleObject(CompletionEvent_.Get(), 1);
  }
}

TCommunicationOperationQueueForReading::~TCommunicationOperationQueueForReading() { Close(); }

int32_t TCommunicationOperationQueueForReading::GetAvailableSize(
    const TTransferOperation& Operation) {
  if (IsHeldUp(Operation)) return 0;
  if (Request_ != nullptr && Request_->Taken < Request_->Received)
    return static_cast<int32_t>(Request_->Received - Request_->Taken);
  return static_cast<int32_t>(std::max<DWORD>(1, GetInputCount(Operation)));
}

bool TCommunicationOperationQueueForReading::TransferData(TTransferOperation& Operation, void* Data,
                                                          int32_t& Size) {
  if (Request_ != nullptr && Request_->Taken < Request_->Received) {
    const DWORD size = std::min(Request_->Received - Request_->Taken, static_cast<DWORD>(Size));
    std::memcpy(Data, Request_->Block.data() + Request_->Taken, size);
    Request_->Taken += size;
    Size = static_cast<int32_t>(size);
    return true;
  }
  NewRequest(Size);
  RequestData_ = static_cast<char*>(Data);
  StartRequest(Operation);
  if (!GetIsNT()) Size = 0;
  return false;
}

bool TCommunicationOperationQueueForReading::Submit(HANDLE Port, TRequest& Request) {
  char* const block = Request.Block.data();
  return GetIsNT()
             ? ::ReadFileEx(Port, block, Request.Size(), &Request.Overlapped, &TRequest::Completed)
             : ::ReadFile(Port, block, Request.Size(), nullptr, &Request.Overlapped);
}

bool TCommunicationOperationQueueForReading::Ended(TRequest& Request, DWORD Error) {
  if (RequestData_ == nullptr) return true;
  std::memcpy(RequestData_, Request.Block.data(), Request.Received);
  Request.Taken = Request.Received;
  CompletedSize_ = Request.Received;
  return Error == 0;
}

TCommunicationOperationQueueForWriting::~TCommunicationOperationQueueForWriting() { Close(); }

int32_t TCommunicationOperationQueueForWriting::GetAvailableSize(
    const TTransferOperation& Operation) {
  return IsHeldUp(Operation) ? 0 : GetPortChannel().GetWriteBufferSize();
}

bool TCommunicationOperationQueueForWriting::TransferData(TTransferOperation& Operation, void* Data,
                                                          int32_t& Size) {
  std::memcpy(NewRequest(Size).Block.data(), Data, static_cast<size_t>(Size));
  RequestData_ = static_cast<char*>(Data);
  StartRequest(Operation);
  if (!GetIsNT()) Size = 0;
  return false;
}

void TCommunicationOperationQueueForWriting::StartTimeoutTask(TTransferOperation&) {}

bool TCommunicationOperationQueueForWriting::Submit(HANDLE Port, TRequest& Request) {
  const char* const block = Request.Block.data();
  return GetIsNT()
             ? ::WriteFileEx(Port, block, Request.Size(), &Request.Overlapped, &TRequest::Completed)
             : ::WriteFile(Port, block, Request.Size(), nullptr, &Request.Overlapped);
}

/// Drivers were seen to refuse good memory. The log tells what they refused.
bool TCommunicationOperationQueueForWriting::Refused(TRequest& Request, DWORD Error) {
  if (!GetIsNT() || Error != ERROR_NOACCESS) return false;
  const char* const block = Request.Block.data();
  Trace(Format("%p %d %d %p %p", static_cast<const void*>(block), static_cast<int>(Request.Size()),
               static_cast<int>(Request.Size()), static_cast<void*>(&Request.Overlapped),
               static_cast<void*>(&Request)),
        TTraceType::ttError);
  const bool readable = !::IsBadReadPtr(block, Request.Size()) &&
                        !::IsBadReadPtr(&Request.Overlapped, sizeof Request.Overlapped);
  Trace(readable ? "Buffer checked" : "Buffer checking error", TTraceType::ttError);
  return Request.TellRefused();
}

/// The driver ends a write without an error when its time is up: then it is short.
bool TCommunicationOperationQueueForWriting::Ended(TRequest& Request, DWORD Error) {
  const DWORD written = std::exchange(Request.Received, 0);
  if (RequestData_ == nullptr) return true;
  CompletedSize_ = written;
  return Error == 0 && written >= Request.Size();
}

// --- TCommunicationChannel ---

namespace {

bool IsFamilyNT() noexcept { return (::GetVersion() & 0x80000000u) == 0; }

}  // namespace

TCommunicationChannel::TCommunicationChannel() : TCommunicationChannel(IsFamilyNT()) {}

TCommunicationChannel::TCommunicationChannel(bool IsNT) {
  auto reading = std::make_unique<TCommunicationOperationQueueForReading>(*this, IsNT);
  auto writing = std::make_unique<TCommunicationOperationQueueForWriting>(*this, IsNT);
  SetOperationQueues(TOperationKind::okRead, reading.release());
  SetOperationQueues(TOperationKind::okWrite, writing.release());
}

TCommunicationChannel::~TCommunicationChannel() {
  Close();
  DestroyQueue(TOperationKind::okWrite);
  DestroyQueue(TOperationKind::okRead);
}

TCommunicationOperationQueue& TCommunicationChannel::QueueOf(TOperationKind Kind) const {
  return static_cast<TCommunicationOperationQueue&>(*GetOperationQueues(Kind));
}

void TCommunicationChannel::SetCommPortIndex(int32_t Value) {
  CheckActive();
  CommPortIndex_ = Value;
}

void TCommunicationChannel::SetReadBufferSize(int32_t Value) {
  CheckActive();
  ReadBufferSize_ = Value;
}

void TCommunicationChannel::SetWriteBufferSize(int32_t Value) {
  CheckActive();
  WriteBufferSize_ = Value;
}

void TCommunicationChannel::SetBandwidth(int32_t Value) {
  TChannel::SetBandwidth(Value);
  if (Value == 0) throw EDivByZero();
  Timeouts_.SetWriteTotalTimeoutMultiplier(
      static_cast<uint32_t>(static_cast<int64_t>(std::ceil(1000.0 / Value))));
}

void TCommunicationChannel::SetLatence(int32_t Value) {
  TChannel::SetLatence(Value);
  Timeouts_.SetWriteTotalTimeoutConstant(static_cast<uint32_t>(Value));
}

void TCommunicationChannel::InitializeQueues() { OpenPort(); }

void TCommunicationChannel::OpenPort() {
  const HANDLE port =
      ::CreateFileA(Format("\\\\.\\COM%d", CommPortIndex_).c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                    nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
  if (!IsOpen(port)) RaiseLastOSError();
  {
    const TForWriting guard(HandleLock_);
    Handle_ = port;
  }
  try {
    ::SetupComm(port, static_cast<DWORD>(ReadBufferSize_), static_cast<DWORD>(WriteBufferSize_));
    DCB_.SetFileHandle(port);
    Timeouts_.SetFileHandle(port);
    SetBandwidth(DCB_.GetBandwidth());
  } catch (...) {
    ClosePort();
    throw;
  }
}

void TCommunicationChannel::ClosePort() noexcept {
  if (!IsOpen(Handle_)) return;
  Timeouts_.SetFileHandle(INVALID_HANDLE_VALUE);
  DCB_.SetFileHandle(INVALID_HANDLE_VALUE);
  {
    const TForWriting guard(HandleLock_);
    ::CloseHandle(std::exchange(Handle_, INVALID_HANDLE_VALUE));
  }
  QueueOf(TOperationKind::okRead).Forget();
  QueueOf(TOperationKind::okWrite).Forget();
}

/// The port is closed even when an operation's event raises.
void TCommunicationChannel::FinalizeQueues() {
  std::exception_ptr first;
  for (const TOperationKind kind : {TOperationKind::okRead, TOperationKind::okWrite}) {
    try {
      QueueOf(kind).Finalize();
    } catch (...) {
      if (first == nullptr) first = std::current_exception();
    }
  }
  ClosePort();
  if (first != nullptr) std::rethrow_exception(first);
}

}  // namespace velox
