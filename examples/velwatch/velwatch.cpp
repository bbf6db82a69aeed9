// Tells what comes to a folder and what goes from it:
//
//     velwatch FOLDER SECONDS [NAME]
//
// Ends after so many seconds; when a file NAME is wanted, as soon as that is there. The system's
// handle of a change is served by a reaction, on the reactor's thread; the end of the time is an
// event that a task of the scheduler sets. The main thread does nothing but wait.

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "velox/async/velReactor.hpp"
#include "velox/async/velScheduler.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velHandle.hpp"

namespace {

using namespace velox;

std::set<std::string> NamesIn(const std::string& Folder) {
  std::set<std::string> names;
  WIN32_FIND_DATAA found;
  const HANDLE search = ::FindFirstFileA((IncludeTrailingSeparator(Folder) + "*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return names;
  do {
    const std::string name = found.cFileName;
    if (name != "." && name != "..") names.insert(name);
  } while (::FindNextFileA(search, &found));
  ::FindClose(search);
  return names;
}

/// A handle that is signalled when a name in a folder comes or goes.
class TChanges {
 public:
  explicit TChanges(const std::string& Folder)
      : Handle_(::FindFirstChangeNotificationA(
            Folder.c_str(), FALSE, FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME)) {
    if (Handle_ == INVALID_HANDLE_VALUE) RaiseLastOSError();
  }
  ~TChanges() { ::FindCloseChangeNotification(Handle_); }
  TChanges(const TChanges&) = delete;
  TChanges& operator=(const TChanges&) = delete;

  HANDLE Get() const { return Handle_; }
  void Rearm() {
    if (!::FindNextChangeNotification(Handle_)) RaiseLastOSError();
  }

 private:
  const HANDLE Handle_;
};

class TWatch {
 public:
  TWatch(std::string Folder, std::string Wanted)
      : Folder_(std::move(Folder)),
        Wanted_(std::move(Wanted)),
        Changes_(Folder_),
        Names_(NamesIn(Folder_)),
        Reaction_(TReactor::GetInstance(), Changes_.Get(), nullptr,
                  TReactionEvent::Bind<&TWatch::OnChange>(this)) {
    if (Names_.contains(Wanted_)) ::SetEvent(Found_.Get());
    std::printf("watching %s\n", Folder_.c_str());
    std::fflush(stdout);
    Reaction_.SetActive(true);
  }

  /// Signalled when the wanted name is there.
  HANDLE GetFound() const { return Found_.Get(); }

 private:
  // On the reactor's thread, which alone touches the names from now on. What changes after the
  // handle is set again signals it anew, so nothing is missed.
  void OnChange(TObject*) {
    Changes_.Rearm();
    std::set<std::string> names = NamesIn(Folder_);
    for (const std::string& name : Names_)
      if (!names.contains(name)) std::printf("gone %s\n", name.c_str());
    for (const std::string& name : names)
      if (!Names_.contains(name)) std::printf("new  %s\n", name.c_str());
    std::fflush(stdout);
    Names_ = std::move(names);
    if (Names_.contains(Wanted_)) ::SetEvent(Found_.Get());
  }

  const std::string Folder_;
  const std::string Wanted_;
  const THandle Found_{::CreateEventA(nullptr, TRUE, FALSE, nullptr)};
  TChanges Changes_;
  std::set<std::string> Names_;
  TEventReaction
      Reaction_;  // the last member: once it is destroyed, OnChange does not run any more
};

}  // namespace

int main(int argc, char** argv) try {
  const bool help = argc == 2 && std::string(argv[1]) == "--help";
  const int seconds = argc > 2 ? std::atoi(argv[2]) : 0;
  if (help || argc < 3 || argc > 4 || seconds < 1) {
    std::fputs(
        "usage: velwatch FOLDER SECONDS [NAME]\n"
        "exit code: 2 when NAME did not come, 1 when something failed, else 0\n",
        help ? stdout : stderr);
    return help ? 0 : 1;
  }
  const bool wanted = argc == 4;
  const THandle timeUp(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
  TEventTask limit;
  limit.SetEventHandle(timeUp.Get());
  limit.SetDuration(seconds * 1000LL);
  limit.SetActive(1);
  const TWatch watch(argv[1], wanted ? argv[3] : "");
  const HANDLE handles[] = {watch.GetFound(), timeUp.Get()};
  const bool found = WaitForMultipleObjectsAlertable(handles, "velwatch") == WAIT_OBJECT_0;
  return wanted && !found ? 2 : 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "velwatch: %s\n", e.what());
  return 1;
}
