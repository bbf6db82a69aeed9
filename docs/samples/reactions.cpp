#include <atomic>

#include "docs/samples/samples.hpp"
#include "velox/async/velReactor.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/runtime/velHandle.hpp"

namespace samples {

using namespace velox;

namespace {

//! [reaction]
/// Reacts to an event of another program.
class TWatcher {
 public:
  /// The event is borrowed. It must reset by itself, or OnSignal would be called again at once.
  explicit TWatcher(HANDLE Event)
      : Reaction_(TReactor::GetInstance(), Event, nullptr,
                  TReactionEvent::Bind<&TWatcher::OnSignal>(this)) {
    Reaction_.SetActive(true);
  }

  int GetSignals() const { return Signals_; }

 private:
  void OnSignal(TObject*) { ++Signals_; }  // on a reactor's thread, so keep it short

  std::atomic<int> Signals_ = 0;
  TEventReaction
      Reaction_;  // the last member: once it is destroyed, OnSignal does not run any more
};
//! [reaction]

//! [own thread]
/// The same on the thread that makes it, whenever that waits alertably.
class TWatcherHere {
 public:
  explicit TWatcherHere(HANDLE Event)
      : Thread_(GetRealCurrentThreadHandle()),
        Reaction_(TReactor::GetInstance(), Event, Thread_.Get(),
                  TReactionEvent::Bind<&TWatcherHere::OnSignal>(this)) {
    Reaction_.SetActive(true);
  }

  int Signals = 0;  // no lock and nothing atomic: one thread only

 private:
  void OnSignal(TObject*) { ++Signals; }

  const THandle Thread_;
  TEventReaction Reaction_;
};
//! [own thread]

}  // namespace

void RunReactions() {
  const THandle first(::CreateEventA(nullptr, FALSE, FALSE, nullptr));
  const THandle second(::CreateEventA(nullptr, FALSE, FALSE, nullptr));
  const TWatcher watcher(first.Get());
  const TWatcherHere here(second.Get());
  ::SetEvent(first.Get());
  ::SetEvent(second.Get());
  while (watcher.GetSignals() == 0 || here.Signals == 0) WaitAlertableOnce({}, 10);
}

}  // namespace samples
