#include <atomic>

#include "docs/samples/samples.hpp"
#include "velox/async/velScheduler.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/runtime/velHandle.hpp"

namespace samples {

using namespace velox;

namespace {

//! [periodic]
/// Looks at something four times a second.
class TMonitor {
 public:
  TMonitor() {
    Task_.SetOnExecute(TTaskExecuteEvent::Bind<&TMonitor::OnTime>(this));
    Task_.SetDuration(100);  // milliseconds to the first run,
    Task_.SetPeriod(250);    // and from one to the next
    Task_.SetActive(1);
  }

  int GetLooks() const { return Looks_; }

 private:
  void OnTime(TObject*) { ++Looks_; }  // on the scheduler's thread, so keep it short

  std::atomic<int> Looks_ = 0;
  TCallbackTask Task_;  // the last member: once it is destroyed, OnTime does not run any more
};
//! [periodic]

//! [task class]
/// A task with work of its own. It frees its own state only when no run can come any more.
class TSampler : public TScheduledTask {
 public:
  ~TSampler() override { FreeInstance(); }  // first thing
  void Execute() override { ++Samples; }

  std::atomic<int> Samples = 0;
};
//! [task class]

//! [event]
/// Waits for Work, but no longer than that.
bool AwaitFor(HANDLE Work, int64_t Milliseconds) {
  const THandle due(::CreateEventA(nullptr, FALSE, FALSE, nullptr));
  TEventTask limit;
  limit.SetEventHandle(due.Get());
  limit.SetDuration(Milliseconds);
  limit.SetActive(1);
  const HANDLE handles[] = {Work, due.Get()};
  return WaitForMultipleObjectsAlertable(handles, "work or its limit") == WAIT_OBJECT_0;
}
//! [event]

}  // namespace

void RunTasks() {
  const THandle never(::CreateEventA(nullptr, FALSE, FALSE, nullptr));
  {
    TMonitor monitor;
    TSampler sampler;
    sampler.SetActive(1);  // at once: its duration is 0
    while (monitor.GetLooks() == 0 || sampler.Samples == 0) AwaitFor(never.Get(), 10);
  }
  Expect(!AwaitFor(never.Get(), 1), "the limit ends the wait");
}

}  // namespace samples
