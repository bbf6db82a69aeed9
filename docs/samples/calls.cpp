#include <memory>
#include <string>

#include "docs/samples/samples.hpp"
#include "velox/async/velAsyncQueue.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/runtime/velCallbackGuard.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velHandle.hpp"

namespace samples {

using namespace velox;

namespace {

//! [queue]
/// Keeps a total that one thread alone touches: others send it what to add.
class TLedger {
 public:
  /// On the thread that is going to own the total.
  TLedger() { Queue_.Activate(nullptr, 0); }

  /// From any thread. The object is handed over.
  void Add(std::unique_ptr<int> Amount) {
    Queue_.Queue(TAsynchronousCallQueueHandler::Bind<&TLedger::OnAdd>(this), Amount.get());
    static_cast<void>(Amount.release());  // once the queue has it
  }

  int GetTotal() const { return Total_; }
  int32_t GetPending() const { return Queue_.GetPending(); }

 private:
  void OnAdd(TAsynchronousCallQueue&, void* Data) {
    const std::unique_ptr<int> amount(static_cast<int*>(Data));
    Total_ += *amount;
  }

  int Total_ = 0;
  TAsynchronousCallQueue Queue_;  // the last member: its destructor waits for the calls
};
//! [queue]

//! [raise]
void CALLBACK Fail(ULONG_PTR) {
  GuardCallback([] { throw Exception("no such meter"); });
}

std::string WhatTheWaitRaises() {
  ::QueueUserAPC(&Fail, ::GetCurrentThread(), 0);
  try {
    SleepAlertable();  // the APC runs in here
  } catch (const Exception& e) {
    return e.what();
  }
  return "";
}
//! [raise]

void AddOnce(void* Ledger) { static_cast<TLedger*>(Ledger)->Add(std::make_unique<int>(42)); }

}  // namespace

void RunCalls() {
  TLedger ledger;
  DWORD id = 0;
  const THandle other(TThreadFactory::GetInstance()->CreateThread(
      "Other", TThreadExecutionRoutine::Bind<&AddOnce>(), &ledger, id));
  WaitForSingleObjectAlertable(other.Get());
  while (ledger.GetPending() > 0) WaitAlertableOnce({}, 10);
  Expect(ledger.GetTotal() == 42, "a call brings its data");
  Expect(WhatTheWaitRaises() == "no such meter", "the wait raises what the callback let escape");
}

}  // namespace samples
