// The samples that stand in the headers of runtime, foundation and async, to the letter. The one of
// ExecuteProcess is compiled only: it starts a program that talks to the network.
#include <atomic>
#include <memory>
#include <string>

#include "docs/samples/samples.hpp"
#include "velox/async/velAsyncQueue.hpp"
#include "velox/async/velReactor.hpp"
#include "velox/async/velScheduler.hpp"
#include "velox/channels/velCommonChannel.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velFlagSet.hpp"
#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velMethod.hpp"
#include "velox/runtime/velObject.hpp"
#include "velox/system/velModuleInfo.hpp"

namespace samples {

using namespace velox;

namespace {

/// What the samples' methods belong to.
class TReader {
 public:
  void CallBound(TObject* sender) {
    TReactionEvent event = TReactionEvent::Bind<&TReader::OnReady>(this);
    if (event) event(sender);
  }

  void React(HANDLE event) {
    TEventReaction ready(TReactor::GetInstance(), event, nullptr,
                         TReactionEvent::Bind<&TReader::OnReady>(this));
    ready.SetActive(true);

    WaitForSingleObjectAlertable(Ready.Get(), "the reaction");
  }

  void Queue(void* data) {
    TAsynchronousCallQueue queue;
    queue.Activate(nullptr, 0);  // bound to the calling thread, which waits alertably at times
    // From any thread:
    queue.Queue(TAsynchronousCallQueueHandler::Bind<&TReader::Handle>(this), data);
  }

  void RunThread() {
    DWORD id;
    THandle thread(TThreadFactory::GetInstance()->CreateThread(
        "Reader", TThreadExecutionRoutine::Bind<&TReader::Execute>(this), nullptr, id));

    if (!thread) RaiseLastOSError();
    WaitForSingleObjectAlertable(thread.Get(), "the thread's end");
  }

  THandle Ready{::CreateEventA(nullptr, FALSE, FALSE, nullptr)};
  void* Handled = nullptr;
  std::atomic<bool> Executed = false;

 private:
  void OnReady(TObject*) { ::SetEvent(Ready.Get()); }
  void Handle(TAsynchronousCallQueue&, void* Data) { Handled = Data; }
  void Execute(void*) { Executed = true; }
};

struct TMeter {
  void OnTick(TObject*) { ++Ticks; }
  std::atomic<int> Ticks = 0;
};

/// The task ends with the function, most likely before its first run.
bool StartTicks(TMeter& meter) {
  TCallbackTask tick;
  tick.SetOnExecute(TTaskExecuteEvent::Bind<&TMeter::OnTick>(&meter));
  tick.SetDuration(1000);  // first run after a second,
  tick.SetPeriod(250);     // then four a second
  tick.SetActive(1);

  return tick.GetActive() != 0;
}

TVersionInfoFileFlags WithoutDebug() {
  TVersionInfoFileFlags flags{TVersionInfoFileFlag::viffDebug};
  if (flags.Contains(TVersionInfoFileFlag::viffDebug))
    flags.Exclude(TVersionInfoFileFlag::viffDebug);

  return flags;
}

std::string MadeByItsClass() {
  TClass operation = TClass::Of<TTransferOperation>();
  std::unique_ptr<TObject> made = operation.Create();

  return made->ClassName();
}

}  // namespace

int32_t Ping(TStrings& Output) {
  TStrings lines;
  auto keep = [&](const std::string& line) { lines.push_back(line); };
  const auto event = TProcessOutputEvent::To(keep);
  const int32_t code = ExecuteProcess("ping host", "", event, false, nullptr);

  Output = lines;
  return code;
}

void RunThreadsOfHeaders() {
  TReader reader;
  reader.CallBound(nullptr);
  Expect(::WaitForSingleObject(reader.Ready.Get(), 0) == WAIT_OBJECT_0, "the method is called");
  const THandle signalled(::CreateEventA(nullptr, FALSE, TRUE, nullptr));
  reader.React(signalled.Get());  // returns when the reaction has run
  int data = 0;
  reader.Queue(&data);
  Expect(reader.Handled == &data, "a call to the queue's own thread runs at once");
  reader.RunThread();
  Expect(reader.Executed, "the thread has run");

  TMeter meter;
  Expect(StartTicks(meter), "the task is active");
  Expect(WithoutDebug().GetIsEmpty(), "the only flag is taken out");
  Expect(MadeByItsClass() == "TTransferOperation", "a class makes an object of it");
}

}  // namespace samples
