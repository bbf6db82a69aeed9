#include "docs/samples/samples.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velHandle.hpp"

namespace samples {

using namespace velox;

namespace {

//! [thread]
class TWorker {
 public:
  void Start() {
    DWORD id = 0;
    Thread_ = THandle(TThreadFactory::GetInstance()->CreateThread(
        "Worker", TThreadExecutionRoutine::Bind<&TWorker::Execute>(this), nullptr, id));
    if (!Thread_) RaiseLastOSError();
  }

  void Stop() {
    ::SetEvent(Stop_.Get());
    WaitForSingleObjectAlertable(Thread_.Get(), "the worker's end");
  }

 private:
  void Execute(void*) {
    Trace("the worker runs", ttDebug);
    WaitForSingleObjectAlertable(Stop_.Get(), "worker");  // callbacks run meanwhile
  }

  THandle Stop_{::CreateEventA(nullptr, TRUE, FALSE, nullptr)};
  THandle Thread_;
};
//! [thread]

//! [loop]
/// Serves a handle until Stop is signalled, and does something else at least once a second.
int ServeUntil(HANDLE Stop, HANDLE Work) {
  int served = 0;
  for (;;) {
    const HANDLE handles[] = {Stop, Work};
    switch (WaitAlertableOnce(handles, 1000)) {
      case WAIT_OBJECT_0:
        return served;
      case WAIT_OBJECT_0 + 1:
        ++served;
        break;
      case WAIT_IO_COMPLETION:
        break;  // callbacks ran; what they raise comes out of the wait
      case WAIT_TIMEOUT:
        Trace("nothing to do", ttDebug);
        break;
      default:
        RaiseLastOSError();
    }
  }
}
//! [loop]

}  // namespace

void RunThreads() {
  TWorker worker;
  worker.Start();
  worker.Stop();
  const THandle stop(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
  const THandle work(::CreateEventA(nullptr, FALSE, TRUE, nullptr));
  ::SetEvent(stop.Get());
  Expect(ServeUntil(stop.Get(), work.Get()) == 0, "the first handle counts");
}

}  // namespace samples
