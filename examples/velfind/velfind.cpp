// Prints the lines of files that contain a text:
//
//     velfind TEXT FILE…
//
// Several threads read the files, and none of them prints: each line found is handed to the main
// thread by a queue of calls, and that thread runs the calls while it waits for the others' end.
// The lines of one file come in their order, the files in any.

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "examples/support/standard_output.hpp"
#include "examples/support/whole_file.hpp"
#include "velox/async/velAsyncQueue.hpp"
#include "velox/foundation/velSyncUtils.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velFormat.hpp"

namespace {

using namespace velox;

/// What a searching thread tells the main thread: a line, or why a file could not be read.
struct TNews {
  std::string Text;
  bool Failure = false;
};

class TSearch {
 public:
  TSearch(std::string Text, std::vector<std::string> Files)
      : Text_(std::move(Text)), Files_(std::move(Files)) {
    Queue_.Activate(nullptr, 0);  // calls run on this thread
  }

  /// Searches all files; returns the program's exit code.
  int Run() {
    std::vector<THandle> threads;
    for (size_t i = 0; i < std::min<size_t>(MostThreads, Files_.size()); ++i) {
      DWORD id = 0;
      threads.emplace_back(TThreadFactory::GetInstance()->CreateThread(
          "velfind reader", TThreadExecutionRoutine::Bind<&TSearch::Execute>(this), nullptr, id));
      if (!threads.back()) {
        threads.pop_back();
        if (threads.empty()) RaiseLastOSError();
        break;  // those that run do the work
      }
    }
    for (const THandle& thread : threads) WaitForSingleObjectAlertable(thread.Get(), "readers");
    Queue_.Wait();  // what they queued last
    if (Failed_) return 2;
    return Found_ ? 0 : 1;
  }

 private:
  static constexpr size_t MostThreads = 4;

  // On each of the readers' threads.
  void Execute(void*) {
    for (size_t i = Next_++; i < Files_.size(); i = Next_++) {
      try {
        SearchFile(Files_[i]);
      } catch (const std::exception& e) {
        Tell({Files_[i] + ": " + e.what(), true});
      }
    }
  }

  void SearchFile(const std::string& Name) {
    const std::vector<uint8_t> bytes = example::ReadWholeFile(Name);
    std::istringstream text(std::string(bytes.begin(), bytes.end()));
    std::string line;
    for (int number = 1; std::getline(text, line); ++number) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.find(Text_) != line.npos) Tell({Format("%s:%d: ", Name.c_str(), number) + line});
    }
  }

  void Tell(TNews News) {
    auto data = std::make_unique<TNews>(std::move(News));
    Queue_.Queue(TAsynchronousCallQueueHandler::Bind<&TSearch::OnNews>(this), data.get());
    static_cast<void>(data.release());  // once the queue has it
  }

  // On the main thread, so that these two need no lock.
  void OnNews(TAsynchronousCallQueue&, void* Data) {
    const std::unique_ptr<TNews> news(static_cast<TNews*>(Data));
    (news->Failure ? Failed_ : Found_) = true;
    if (news->Failure) {
      std::fprintf(stderr, "velfind: %s\n", news->Text.c_str());
    } else {
      std::printf("%s\n", news->Text.c_str());
    }
  }

  const std::string Text_;
  const std::vector<std::string> Files_;
  std::atomic<size_t> Next_ = 0;
  bool Found_ = false;
  bool Failed_ = false;
  TAsynchronousCallQueue Queue_;
};

}  // namespace

int main(int argc, char** argv) try {
  if (argc < 3) {
    const bool help = argc == 2 && std::string(argv[1]) == "--help";
    std::fputs(
        "usage: velfind TEXT FILE...\n"
        "exit code: 0 when the text was found, 1 when not, 2 when a file could not be read\n",
        help ? stdout : stderr);
    return help ? 0 : 2;
  }
  const int result = TSearch(argv[1], {argv + 2, argv + argc}).Run();
  example::FinishOutput();
  return result;
} catch (const std::exception& e) {
  std::fprintf(stderr, "velfind: %s\n", e.what());
  return 2;
}
