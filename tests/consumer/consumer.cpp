// A program of a user. What could go wrong between it and the DLL, and not inside of either:
// exceptions, classes and memory that pass from one to the other, variables of the DLL, and
// callbacks from its threads.

#include <cstdio>
#include <memory>
#include <string>

#include "velox/async/velScheduler.hpp"
#include "velox/codecs/velHash.hpp"
#include "velox/containers/velObjArray.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velHandle.hpp"

namespace {

int Failures = 0;

void Check(const char* What, bool Good) {
  std::printf("%s: %s\n", Good ? "ok" : "FAILED", What);
  if (!Good) ++Failures;
}

void CheckException() {
  try {
    velox::RaiseLastOSErrorEx(ERROR_FILE_NOT_FOUND);
  } catch (const velox::EOSError& e) {
    Check("an exception of the DLL is caught by its type",
          e.ErrorCode == ERROR_FILE_NOT_FOUND &&
              std::string(e.what()).find("Code: 2") != std::string::npos);
    return;
  } catch (...) {
  }
  Check("an exception of the DLL is caught by its type", false);
}

class TItem : public velox::TObject {
 public:
  explicit TItem(int& Alive) : Alive_(Alive) { ++Alive_; }
  ~TItem() override { --Alive_; }

 private:
  int& Alive_;
};

void CheckClass() {
  int alive = 0;
  {
    velox::TObjectArray array(velox::TClass::Of<TItem>());
    array.SetSharedObjects(false);
    array.Add(new TItem(alive));
    Check("a class derived here has its own name",
          array.GetItems(0)->ClassName().find("TItem") != std::string::npos);
  }
  Check("the DLL destroys an object made here", alive == 0);
}

struct TTimer {
  void OnTime(velox::TObject*) {
    Thread = ::GetCurrentThreadId();
    ::SetEvent(Done.Get());
    throw velox::Exception("for the trace log");
  }
  velox::THandle Done{::CreateEventA(nullptr, FALSE, FALSE, nullptr)};
  DWORD Thread = 0;
};

void CheckCallback() {
  TTimer timer;
  velox::TCallbackTask task;
  task.SetOnExecute(velox::TTaskExecuteEvent::Bind<&TTimer::OnTime>(&timer));
  task.SetActive(1);
  velox::WaitForSingleObjectAlertable(timer.Done.Get());
  Check("a thread of the DLL calls, and bears an exception",
        timer.Thread != ::GetCurrentThreadId());
}

}  // namespace

int main() {
  CheckException();
  CheckClass();
  CheckCallback();
  const uint32_t crc = velox::TCRC32().Calculate("123456789", 9);
  Check("a template made in the DLL", crc == 0xCBF43926);
  velox::TerminateOnOutOfMemoryRequired = false;
  Check("a variable of the DLL", !velox::TerminateOnOutOfMemoryRequired);
  return Failures == 0 ? 0 : 1;
}
