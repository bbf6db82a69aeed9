#include <string>

#include "docs/samples/samples.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFileStream.hpp"
#include "velox/runtime/velHandle.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace samples {

using namespace velox;

namespace {

//! [check]
/// Opens an event that another program has made.
THandle OpenSignal(const std::string& Name) {
  THandle event(::OpenEventA(SYNCHRONIZE, FALSE, Name.c_str()));
  if (!event) RaiseLastOSError();  // EOSError, with the system's text
  return event;
}

std::string WhyNot(const std::string& Name) {
  try {
    OpenSignal(Name);
    return "";
  } catch (const EOSError& e) {
    if (e.ErrorCode == ERROR_FILE_NOT_FOUND) return "the other program does not run";
    return SystemErrorMessage(e.ErrorCode);
  }
}
//! [check]

//! [trace]
/// What a service does at its outermost place: the log gets the class, the message and the address
/// where it was raised, whatever the exception is.
template <class TWork>
bool RunGuarded(const TWork& Work) {
  try {
    Work();
    return true;
  } catch (...) {
    TraceException("the nightly job failed");
    return false;
  }
}
//! [trace]

//! [class]
/// An exception of one's own, which nothing distinguishes but its name.
class EMeterError : public Exception {
 public:
  using Exception::Exception;
};
//! [class]

}  // namespace

void RunErrors() {
  Expect(WhyNot("velox-samples-no-such-event") == "the other program does not run",
         "a missing event is told by its code");
  Expect(!RunGuarded([] { throw EMeterError("no such meter"); }), "an exception is traced");
  Expect(!RunGuarded([] { TFileStream("no such folder\\x", TFileMode::fmOpenRead); }),
         "a missing file raises");
}

}  // namespace samples
