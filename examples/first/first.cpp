#include <cstdio>

#include "velox/async/velScheduler.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velHandle.hpp"

struct TMeter {
  void OnTick(velox::TObject*) {  // on the scheduler's thread
    std::printf("tick %d\n", ++Ticks);
    if (Ticks == 3) ::SetEvent(Done.Get());
  }
  velox::THandle Done{::CreateEventA(nullptr, FALSE, FALSE, nullptr)};
  int Ticks = 0;
};

int main() {
  TMeter meter;
  velox::TCallbackTask task;
  task.SetOnExecute(velox::TTaskExecuteEvent::Bind<&TMeter::OnTick>(&meter));
  task.SetDuration(1000);  // milliseconds to the first tick,
  task.SetPeriod(250);     // and from one to the next
  task.SetActive(1);
  velox::WaitForSingleObjectAlertable(meter.Done.Get());
  velox::Trace("three ticks seen", velox::ttDebug);  // goes to first.log, beside the program
}
