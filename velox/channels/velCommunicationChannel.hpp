#pragma once

#include <cstdint>
#include <memory>

#include "velox/channels/velCommonChannel.hpp"
#include "velox/runtime/velFlagSet.hpp"
#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/runtime/velWindows.hpp"

/// A channel over a serial port.
///
///     TCommunicationChannel channel;
///     channel.SetCommPortIndex(3);
///     channel.GetDCB().SetBaudRate(TCommBaudRate::cbr115200);
///     channel.SetActive(true);  // opens \\.\COM3
namespace velox {

/// Bits per second: the number in the name.
enum class TCommBaudRate : uint8_t {
  cbr110,
  cbr300,
  cbr600,
  cbr1200,
  cbr2400,
  cbr4800,
  cbr9600,
  cbr14400,
  cbr19200,
  cbr38400,
  cbr56000,
  cbr57600,
  cbr115200,
  cbr128000,
  cbr256000,
  cbr460800,
  cbr921600
};

/// What the line DTR is used for. The values of these four are the system's own.
enum class TCommDtrControl : uint8_t {
  dtrDisable,   ///< off
  dtrEnable,    ///< on while the port is open
  dtrHandshake  ///< off while the input queue is nearly full
};
/// What the line RTS is used for.
enum class TCommRtsControl : uint8_t {
  rtsDisable,    ///< off
  rtsEnable,     ///< on while the port is open
  rtsHandshake,  ///< off while the input queue is nearly full
  rtsToggle      ///< on while there are bytes to send
};
/// How the parity bit is made.
enum class TCommParityScheme : uint8_t {
  cpNone,  ///< there is none
  cpOdd,   ///< an odd number of ones
  cpEven,  ///< an even number of ones
  cpMark,  ///< always 1
  cpSpace  ///< always 0
};
/// How long the line rests behind a byte.
enum class TCommStopBits : uint8_t {
  csbOne,         ///< one bit
  csbOneAndHalf,  ///< one and a half
  csbTwo          ///< two
};

/// Events of a port, for owners that watch it by themselves; this library uses none of them.
enum class TCommEventMask : uint8_t {
  cemBreak,   ///< the input was broken off
  cemCTS,     ///< CTS has changed
  cemDSR,     ///< DSR has changed
  cemError,   ///< an error of the line: frame, overrun or parity
  cemRing,    ///< a ring was noticed
  cemRLSD,    ///< the carrier has come or gone
  cemRxChar,  ///< a byte has come
  cemRxFlag,  ///< the byte EvtChar has come
  cemTxEmpty  ///< the last byte of the output queue has been sent
};
/// A set of events.
using TCommEventMasks = TFlagSet<TCommEventMask>;

/// The line settings of a port: what Windows calls its device control block. The values are kept
/// while no port is attached, and written to each port that is. While one is, a changed value is
/// written at once, or within BeginUpdate and EndUpdate once at the end. Setters raise EOSError
/// when the port refuses; the value is kept all the same.
///
/// Threads: one at a time.
class VELOX_API TCommunicationDCB : public TObject {
 public:
  /// No port is attached; all properties have their defaults.
  TCommunicationDCB() = default;
  /// Detaches.
  ~TCommunicationDCB() override;

  /// Default cbr19200.
  TCommBaudRate GetBaudRate() const noexcept { return Settings_.BaudRate; }
  void SetBaudRate(TCommBaudRate Value) { Assign(Settings_.BaudRate, Value); }

  /// Binary mode; Windows knows no other. Default true.
  bool GetBinary() const noexcept { return Settings_.Binary; }
  void SetBinary(bool Value) { Assign(Settings_.Binary, Value); }

  /// Checks the parity of what is received.
  bool GetEnableParity() const noexcept { return Settings_.EnableParity; }
  void SetEnableParity(bool Value) { Assign(Settings_.EnableParity, Value); }

  /// Sends only while CTS is on.
  bool GetOutxCtsFlow() const noexcept { return Settings_.OutxCtsFlow; }
  void SetOutxCtsFlow(bool Value) { Assign(Settings_.OutxCtsFlow, Value); }

  /// Sends only while DSR is on.
  bool GetOutxDsrFlow() const noexcept { return Settings_.OutxDsrFlow; }
  void SetOutxDsrFlow(bool Value) { Assign(Settings_.OutxDsrFlow, Value); }

  /// Default dtrEnable.
  TCommDtrControl GetDtrControl() const noexcept { return Settings_.DtrControl; }
  void SetDtrControl(TCommDtrControl Value) { Assign(Settings_.DtrControl, Value); }

  /// Ignores what is received while DSR is off.
  bool GetDsrSensitivity() const noexcept { return Settings_.DsrSensitivity; }
  void SetDsrSensitivity(bool Value) { Assign(Settings_.DsrSensitivity, Value); }

  /// Goes on sending after XoffChar was sent.
  bool GetTXContinueOnXoff() const noexcept { return Settings_.TXContinueOnXoff; }
  void SetTXContinueOnXoff(bool Value) { Assign(Settings_.TXContinueOnXoff, Value); }

  /// Stops sending on a received XoffChar, until XonChar comes.
  bool GetOutX() const noexcept { return Settings_.OutX; }
  void SetOutX(bool Value) { Assign(Settings_.OutX, Value); }

  /// Sends XoffChar and XonChar as the input queue fills and empties.
  bool GetInX() const noexcept { return Settings_.InX; }
  void SetInX(bool Value) { Assign(Settings_.InX, Value); }

  /// Puts ErrorChar in the place of bytes with a parity error.
  bool GetEnableErrorChar() const noexcept { return Settings_.EnableErrorChar; }
  void SetEnableErrorChar(bool Value) { Assign(Settings_.EnableErrorChar, Value); }

  /// Drops received null bytes.
  bool GetEnableNull() const noexcept { return Settings_.EnableNull; }
  void SetEnableNull(bool Value) { Assign(Settings_.EnableNull, Value); }

  /// Default rtsEnable.
  TCommRtsControl GetRtsControl() const noexcept { return Settings_.RtsControl; }
  void SetRtsControl(TCommRtsControl Value) { Assign(Settings_.RtsControl, Value); }

  /// Ends all transfers on an error until it is cleared.
  bool GetAbortOnError() const noexcept { return Settings_.AbortOnError; }
  void SetAbortOnError(bool Value) { Assign(Settings_.AbortOnError, Value); }

  /// Bytes left in the input queue at which XonChar is sent. Default 512.
  uint16_t GetXonLim() const noexcept { return Settings_.XonLim; }
  void SetXonLim(uint16_t Value) { Assign(Settings_.XonLim, Value); }

  /// Bytes of room left in the input queue at which XoffChar is sent. Default 128.
  uint16_t GetXoffLim() const noexcept { return Settings_.XoffLim; }
  void SetXoffLim(uint16_t Value) { Assign(Settings_.XoffLim, Value); }

  /// Bits of a byte, 4 to 8. Default 8.
  uint8_t GetByteSize() const noexcept { return Settings_.ByteSize; }
  void SetByteSize(uint8_t Value) { Assign(Settings_.ByteSize, Value); }

  /// Default cpNone.
  TCommParityScheme GetParityScheme() const noexcept { return Settings_.ParityScheme; }
  void SetParityScheme(TCommParityScheme Value) { Assign(Settings_.ParityScheme, Value); }

  /// Default csbOne.
  TCommStopBits GetStopBits() const noexcept { return Settings_.StopBits; }
  void SetStopBits(TCommStopBits Value) { Assign(Settings_.StopBits, Value); }

  /// Default 17.
  uint8_t GetXonChar() const noexcept { return Settings_.XonChar; }
  void SetXonChar(uint8_t Value) { Assign(Settings_.XonChar, Value); }

  /// Default 19.
  uint8_t GetXoffChar() const noexcept { return Settings_.XoffChar; }
  void SetXoffChar(uint8_t Value) { Assign(Settings_.XoffChar, Value); }

  /// Default 0, as the next two.
  uint8_t GetErrorChar() const noexcept { return Settings_.ErrorChar; }
  void SetErrorChar(uint8_t Value) { Assign(Settings_.ErrorChar, Value); }

  /// The byte that stands for the end of data.
  uint8_t GetEofChar() const noexcept { return Settings_.EofChar; }
  void SetEofChar(uint8_t Value) { Assign(Settings_.EofChar, Value); }

  /// The byte whose arrival is an event.
  uint8_t GetEvtChar() const noexcept { return Settings_.EvtChar; }
  void SetEvtChar(uint8_t Value) { Assign(Settings_.EvtChar, Value); }

  /// Sets all properties to their defaults, those of a new object. Writes nothing to a port.
  void InitializeDefault() noexcept { Settings_ = {}; }

  /// Updates may be nested; the outermost EndUpdate writes what was changed. Raises EOSError.
  void BeginUpdate() noexcept { ++UpdateCount_; }
  void EndUpdate();
  int32_t GetUpdateCount() const noexcept { return UpdateCount_; }
  /// Something was changed within the update.
  bool GetModified() const noexcept { return Modified_; }

  /// The port, borrowed; INVALID_HANDLE_VALUE for none. Attaching keeps the port's settings, then
  /// writes these; detaching gives the port its settings back. Raises EOSError.
  HANDLE GetFileHandle() const noexcept { return FileHandle_; }
  void SetFileHandle(HANDLE Value);

  /// The system's block with these settings.
  DCB EncodeDCB() const noexcept;
  /// Takes the settings over from a block, and writes nothing. Raises Exception "Incorrect value
  /// for baud rate", "… dtr control", "… parity", "… rts control" or "… stop bits", and changes
  /// nothing, for a block that has another value than the enumerations. 921600 is such a value: it
  /// can be set, but not taken over.
  void DecodeDCB(const DCB& Block);

  /// Bytes per second: the rate by the bits of a byte, with a start bit, a stop bit, and one more
  /// each for a parity and for more than one stop bit.
  int32_t GetBandwidth() const noexcept;

 private:
  struct TSettings {
    TCommBaudRate BaudRate = TCommBaudRate::cbr19200;
    bool Binary = true;
    bool EnableParity = false;
    bool OutxCtsFlow = false;
    bool OutxDsrFlow = false;
    TCommDtrControl DtrControl = TCommDtrControl::dtrEnable;
    bool DsrSensitivity = false;
    bool TXContinueOnXoff = false;
    bool OutX = false;
    bool InX = false;
    bool EnableErrorChar = false;
    bool EnableNull = false;
    TCommRtsControl RtsControl = TCommRtsControl::rtsEnable;
    bool AbortOnError = false;
    uint16_t XonLim = 512;
    uint16_t XoffLim = 128;
    uint8_t ByteSize = 8;
    TCommParityScheme ParityScheme = TCommParityScheme::cpNone;
    TCommStopBits StopBits = TCommStopBits::csbOne;
    uint8_t XonChar = 17;
    uint8_t XoffChar = 19;
    uint8_t ErrorChar = 0;
    uint8_t EofChar = 0;
    uint8_t EvtChar = 0;
  };

  template <class T>
  void Assign(T& Field, T Value) {
    if (Field == Value) return;
    Field = Value;
    Apply();
  }
  void Apply();
  void Write() const;

  TSettings Settings_;
  HANDLE FileHandle_ = INVALID_HANDLE_VALUE;
  DCB Prior_{};  // the port's settings when it was attached
  int32_t UpdateCount_ = 0;
  bool Modified_ = false;
};

/// The timeouts of a port, in milliseconds; all default to 0. They differ from the line settings in
/// one thing: a changed value reaches the port only at the end of an update.
///
/// Threads: one at a time.
class VELOX_API TCommunicationTimeouts : public TObject {
 public:
  /// No port is attached.
  TCommunicationTimeouts() = default;
  /// Detaches.
  ~TCommunicationTimeouts() override;

  /// Longest time between two bytes of a read; 0: no limit.
  uint32_t GetReadIntervalTimeout() const noexcept { return ReadIntervalTimeout_; }
  void SetReadIntervalTimeout(uint32_t Value) { Assign(ReadIntervalTimeout_, Value); }

  /// Time of a whole request to read: so much for each byte asked for,
  uint32_t GetReadTotalTimeoutMultiplier() const noexcept { return ReadTotalTimeoutMultiplier_; }
  void SetReadTotalTimeoutMultiplier(uint32_t Value) { Assign(ReadTotalTimeoutMultiplier_, Value); }

  /// and so much besides. Both 0: no limit.
  uint32_t GetReadTotalTimeoutConstant() const noexcept { return ReadTotalTimeoutConstant_; }
  void SetReadTotalTimeoutConstant(uint32_t Value) { Assign(ReadTotalTimeoutConstant_, Value); }

  /// Time of a whole request to write, likewise,
  uint32_t GetWriteTotalTimeoutMultiplier() const noexcept { return WriteTotalTimeoutMultiplier_; }
  void SetWriteTotalTimeoutMultiplier(uint32_t Value) {
    Assign(WriteTotalTimeoutMultiplier_, Value);
  }

  /// and so much besides.
  uint32_t GetWriteTotalTimeoutConstant() const noexcept { return WriteTotalTimeoutConstant_; }
  void SetWriteTotalTimeoutConstant(uint32_t Value) { Assign(WriteTotalTimeoutConstant_, Value); }

  /// Updates may be nested; the outermost EndUpdate writes what was changed. Raises EOSError.
  void BeginUpdate() noexcept { ++UpdateCount_; }
  void EndUpdate();
  int32_t GetUpdateCount() const noexcept { return UpdateCount_; }
  /// Something was changed within an update, with a port attached.
  bool GetModified() const noexcept { return Modified_; }

  /// The port, borrowed; INVALID_HANDLE_VALUE for none. Attaching keeps the port's timeouts, and
  /// writes nothing; detaching gives the port its timeouts back. Raises EOSError.
  HANDLE GetFileHandle() const noexcept { return FileHandle_; }
  void SetFileHandle(HANDLE Value);

 private:
  void Assign(uint32_t& Field, uint32_t Value);
  void Apply() noexcept;

  uint32_t ReadIntervalTimeout_ = 0;
  uint32_t ReadTotalTimeoutMultiplier_ = 0;
  uint32_t ReadTotalTimeoutConstant_ = 0;
  uint32_t WriteTotalTimeoutMultiplier_ = 0;
  uint32_t WriteTotalTimeoutConstant_ = 0;

  HANDLE FileHandle_ = INVALID_HANDLE_VALUE;
  COMMTIMEOUTS Prior_{};
  int32_t UpdateCount_ = 0;
  bool Modified_ = false;
};

class TCommunicationChannel;

/// One direction of a serial channel. At most one request to the port at a time, between the port
/// and a block of the queue's own, since a request that is cancelled may go on for a while.
class VELOX_API TCommunicationOperationQueue : public TOperationQueue {
 public:
  /// IsNT: the port tells the end of a request by a completion routine; else by an event that the
  /// reactor watches.
  TCommunicationOperationQueue(TCommunicationChannel& Channel, bool IsNT);
  ~TCommunicationOperationQueue() override;

  /// Which of the two ways this queue uses.
  bool GetIsNT() const noexcept { return IsNT_; }

 protected:
  int32_t GetActualCompletedSize() override { return static_cast<int32_t>(CompletedSize_); }
  void CancelTransfer() override;

  class TRequest;

  /// A block of that size for the next request.
  TRequest& NewRequest(int32_t Size);
  /// Makes the request for the operation. When the port does not take it, raises EOSError; the
  /// operation ends soon after.
  void StartRequest(TTransferOperation& Operation);
  /// Hands the block to the port. Whether it took it.
  virtual bool Submit(HANDLE Port, TRequest& Request) = 0;
  /// The port did not take it. Whether that is no more than the end of the request, told later.
  virtual bool Refused(TRequest& Request, DWORD Error);
  /// The request has ended; RequestData_ is null when its operation is gone. Whether the operation
  /// may go on.
  virtual bool Ended(TRequest& Request, DWORD Error) = 0;

  /// Whether the operation has to wait for the end of a request.
  bool IsHeldUp(const TTransferOperation& Operation) noexcept;
  /// Bytes in the driver's input queue. When the port does not tell, raises EOSError; the operation
  /// ends soon after.
  DWORD GetInputCount(const TTransferOperation& Operation);
  TCommunicationChannel& GetPortChannel() const noexcept;

 private:
  friend class TCommunicationChannel;
  struct TCompletion;
  struct TFreeRequest {
    void operator()(TRequest* Request) const noexcept;
  };

  void DoIOComplete_Win9X(TObject* Sender);
  static void DoIOComplete_WinNT(TCompletion& Completion);
  static void Complete(const TQueueReference& Target, const TProcessOperationsProcedure& Take,
                       TCompletion& Completion);
  void TakeOverlappedResult(int32_t& ACompletedIndex, int32_t& ACompletedCount,
                            TObject* AParameter);
  void TakeCompletion(int32_t& ACompletedIndex, int32_t& ACompletedCount, TObject* AParameter);
  void CarryOn(int32_t& ACompletedIndex, int32_t& ACompletedCount, TObject* AParameter);
  void EndFailed(int32_t& ACompletedIndex, int32_t& ACompletedCount, TObject* AParameter);
  [[noreturn]] void Fail(const TTransferOperation& Operation, DWORD Error);
  /// The port has been closed: nothing of it is for the next one.
  void Forget() noexcept;

  const bool IsNT_;
  THandle CompletionEvent_;  // of the older way, as the next
  std::unique_ptr<TEventReaction> CompletionReaction_;
  const TTransferOperation* Failed_ = nullptr;  // it ends as soon as what was carried is booked

 protected:
  std::unique_ptr<TRequest, TFreeRequest> Request_;  // null until the first since opening
  uint32_t CompletedSize_ = 0;                       // bytes of the chunk that has ended
  char* RequestData_ = nullptr;                      // in the operation's buffer
  TTransferOperation* CurrentOperation_ = nullptr;   // the one that the request is for
};

/// What reads from the port.
class VELOX_API TCommunicationOperationQueueForReading : public TCommunicationOperationQueue {
 public:
  using TCommunicationOperationQueue::TCommunicationOperationQueue;
  ~TCommunicationOperationQueueForReading() override;

 protected:
  /// What has come in, but at least 1: the byte that a read then waits for.
  int32_t GetAvailableSize(const TTransferOperation& Operation) override;
  bool TransferData(TTransferOperation& Operation, void* Data, int32_t& Size) override;
  bool Submit(HANDLE Port, TRequest& Request) override;
  bool Ended(TRequest& Request, DWORD Error) override;
};

/// What writes to the port.
class VELOX_API TCommunicationOperationQueueForWriting : public TCommunicationOperationQueue {
 public:
  using TCommunicationOperationQueue::TCommunicationOperationQueue;
  ~TCommunicationOperationQueueForWriting() override;

 protected:
  /// The channel's WriteBufferSize.
  int32_t GetAvailableSize(const TTransferOperation& Operation) override;
  bool TransferData(TTransferOperation& Operation, void* Data, int32_t& Size) override;
  /// Nothing: the driver's own timeouts limit writes.
  void StartTimeoutTask(TTransferOperation& Operation) override;
  bool Submit(HANDLE Port, TRequest& Request) override;
  bool Refused(TRequest& Request, DWORD Error) override;
  bool Ended(TRequest& Request, DWORD Error) override;
};

/// A channel over a serial port, opened for overlapped transfers and not shared.
///
/// Reads end in time as on every channel; with AutoTimeout by the bandwidth, which is that of the
/// line settings after opening, and the latence. A read that waits is a chunk of one byte, whose
/// time by the bandwidth alone is nothing from 19,200 baud on, which is no limit, and a few
/// milliseconds below, which ends nearly every read: **set the latence**, or a Timeout of
/// (wait * Size). (In the older way, with an event, a read has no time limit.) The
/// driver's own read timeouts end no operation: a request that they end without a byte is made
/// again, and its time begins anew.
///
/// Writes are limited by the driver's timeouts, so the time limits of write operations have no
/// effect: a write that the driver ends for its time ends the operation. Those timeouts follow the
/// bandwidth and the latence, but reach the port only by an update that changes one of them while
/// the port is open, or that is under way when it is opened. Without one, the port keeps those that
/// it was found with, and mostly a write has no limit. So open it like this:
///
///     channel.SetLatence(500);
///     channel.GetTimeouts().BeginUpdate();
///     channel.SetActive(true);
///     channel.GetTimeouts().EndUpdate();  // all timeouts, with those of the line settings
///
/// A read that is cancelled leaves what it got to the next one. An error of the port ends the
/// operation with what was carried.
///
/// Threads: the end of a request is told to the thread that made it, while that thread waits
/// alertably. The reactor's threads, which make them, always do; a thread that drives a queue
/// itself (TOperationQueue::DoOperationQueueChanged) has to wait until the operation is complete.
class VELOX_API TCommunicationChannel : public TChannel {
 public:
  /// The way of telling the end of requests is chosen by the system's family.
  TCommunicationChannel();
  /// Or by the caller: completion routines, or an event that the reactor watches.
  explicit TCommunicationChannel(bool IsNT);
  ~TCommunicationChannel() override;

  /// The N of "\\.\COMN". Default 1. This setter and the next two raise Exception "Cannot change
  /// active channel" when active.
  int32_t GetCommPortIndex() const noexcept { return CommPortIndex_; }
  void SetCommPortIndex(int32_t Value);
  /// Bytes of the driver's queues, and of a chunk written at once. Default 4096.
  int32_t GetReadBufferSize() const noexcept { return ReadBufferSize_; }
  void SetReadBufferSize(int32_t Value);
  int32_t GetWriteBufferSize() const noexcept { return WriteBufferSize_; }
  void SetWriteBufferSize(int32_t Value);

  /// Kept while the port is closed. Each opening applies the line settings; the timeouts reach the
  /// port by updates only, and until then it has those that it was found with.
  TCommunicationDCB& GetDCB() noexcept { return DCB_; }
  TCommunicationTimeouts& GetTimeouts() noexcept { return Timeouts_; }

  /// INVALID_HANDLE_VALUE when closed.
  HANDLE GetHandle() const noexcept { return Handle_; }

  /// Also WriteTotalTimeoutMultiplier: the milliseconds of a byte, rounded up. Raises EDivByZero
  /// for 0. This and the next on one thread at a time, as all that sets timeouts.
  void SetBandwidth(int32_t Value) override;
  /// Also WriteTotalTimeoutConstant.
  void SetLatence(int32_t Value) override;

 protected:
  void InitializeQueues() override;
  void FinalizeQueues() override;

  /// Opens and configures the port. Raises EOSError, and leaves it closed.
  void OpenPort();
  /// Gives the port its prior settings back and closes it.
  void ClosePort() noexcept;

 private:
  friend class TCommunicationOperationQueue;
  TCommunicationOperationQueue& QueueOf(TOperationKind Kind) const;

  // A request is made with HandleLock_ shared, so that the port is not closed meanwhile.
  SRWLOCK HandleLock_ = SRWLOCK_INIT;
  HANDLE Handle_ = INVALID_HANDLE_VALUE;
  int32_t ReadBufferSize_ = 4096;
  int32_t WriteBufferSize_ = 4096;
  int32_t CommPortIndex_ = 1;
  TCommunicationDCB DCB_;
  TCommunicationTimeouts Timeouts_;
};

}  // namespace velox
