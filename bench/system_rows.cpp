// What every program pays: a record in the trace log, and loading the library.

#include "bench/harness.hpp"
#include "velox/foundation/velTrace.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velHandle.hpp"

namespace bench {
namespace {

using namespace velox;

std::string BesideProgram(const char* Name) {
  char program[MAX_PATH] = "";
  ::GetModuleFileNameA(nullptr, program, sizeof program);
  std::string path = program;
  return path.substr(0, path.rfind('\\') + 1) + Name;
}

const TGroup Records(
    "trace log",
    [] {
      const std::string text = "a record of about the length that records have, for the comparison";
      const std::string line = "22.11.2026 12:00:00.000 [0000002C] Debug   " + text + "\r\n";
      const std::string name = BesideProgram("velox_bench_bare.log");
      ::velox::Trace(text, ttDebug);
      Compare(
          {"trace record", "open, append, close", 0.9},
          Repeat([&] { ::velox::Trace(text, ttDebug); }), Repeat([&] {
            const THandle file(::CreateFileA(name.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ,
                                             nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
            DWORD written = 0;
            ::WriteFile(file.Get(), line.data(), static_cast<DWORD>(line.size()), &written,
                        nullptr);
          }));
      ::DeleteFileA(name.c_str());
      ::DeleteFileA(TTracer::GetInstance()->GetFileName().c_str());
    },
    true);

void LoadAndUnload(const std::string& Name) {
  const HMODULE module = ::LoadLibraryA(Name.c_str());
  if (module == nullptr) throw Exception("cannot load " + Name);
  ::FreeLibrary(module);
}

// This program has the library loaded already, so its twin is loaded, which wants another address;
// the compiler's runtime DLLs, which both sides need, stay loaded.
const TGroup Loading(
    "loading",
    [] {
      const std::string twin = BesideProgram("velox_bench_twin.dll");
      const std::string empty = BesideProgram("velox_bench_empty.dll");
      Compare({"load and unload velox.dll", "an empty DLL", 1 / 1.5},
              Repeat([&] { LoadAndUnload(twin); }), Repeat([&] { LoadAndUnload(empty); }));
    },
    true);

}  // namespace
}  // namespace bench
