#define CATCH_CONFIG_RUNNER
#include "bench/harness.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <random>

#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velHandle.hpp"

#include <psapi.h>

namespace bench {
namespace {

using velox::Format;
using TClock = std::chrono::steady_clock;
using TSeconds = std::chrono::duration<double>;

constexpr TSeconds ShortestRun{
    0.02};  // of one side, so that the clock's grain and a switch of threads weigh little
constexpr double Budget = 1.5;  // seconds a row, unless five rounds take longer
constexpr size_t LeastRounds = 5;
constexpr double Patience = 8;  // seconds, after which three rounds do
constexpr size_t FewRounds = 3;
constexpr size_t MostRounds = 25;
constexpr int TracedRuns = 50;

struct TGroupEntry {
  std::string Name;
  void (*Body)();
  bool Counts;
};

std::vector<TGroupEntry>& Groups() {
  static std::vector<TGroupEntry> groups;
  return groups;
}

std::map<std::string, void (*)(const std::vector<std::string>&)>& Roles() {
  static std::map<std::string, void (*)(const std::vector<std::string>&)> roles;
  return roles;
}

bool Tracing = false;

struct TQuartiles {
  double Low, Median, High;
};

TQuartiles Quartiles(std::vector<double> Values) {
  std::sort(Values.begin(), Values.end());
  const size_t last = Values.size() - 1;
  return {Values[last / 4], Values[last / 2], Values[last - last / 4]};
}

double Time(const TSide& Side, int Runs) {
  Catch::Benchmark::Detail::ChronometerModel<TClock> meter;
  Side(TMeter(meter, Runs));
  return TSeconds(meter.elapsed()).count() / Runs;
}

/// How many repetitions last long enough; warms up at the same time.
int Calibrate(const TSide& Side) {
  return Catch::Benchmark::Detail::run_for_at_least<TClock>(
             std::chrono::duration_cast<TClock::duration>(ShortestRun), 1, Side)
      .iterations;
}

std::string ShowTime(double Seconds) {
  if (Seconds < 1e-6) return Format("%.1f ns", Seconds * 1e9);
  if (Seconds < 1e-3) return Format("%.2f us", Seconds * 1e6);
  if (Seconds < 1) return Format("%.2f ms", Seconds * 1e3);
  return Format("%.2f s", Seconds);
}

double PeakMemory() {
  PROCESS_MEMORY_COUNTERS counters{};
  counters.cb = sizeof counters;
  ::GetProcessMemoryInfo(::GetCurrentProcess(), &counters, sizeof counters);
  return static_cast<double>(counters.PeakWorkingSetSize) / (1 << 20);
}

/// Leaves a request with a name of its own in the trace of the system's server.
void Mark(const std::string& Text) {
  velox::THandle(::OpenEventA(SYNCHRONIZE, FALSE, Text.c_str()));
}

/// Instead of measuring: runs between marks, for whoever counts the requests in the trace.
void Trace(const TRow& Row, const char* Who, const TSide& Side) {
  Catch::Benchmark::Detail::ChronometerModel<TClock> meter;
  Side(TMeter(meter, 5));
  Mark(Format("velox-bench begin|%s|%s|%d", Row.Name.c_str(), Who, TracedRuns));
  Side(TMeter(meter, TracedRuns));
  Mark("velox-bench end");
}

constexpr const char* Line =
    "| %-66s | %-42s | %9s | %9s | %6.2f | %5.2f..%-6.2f | %-9s | %6.1f |\n";

void PrintHeader() {
  std::printf("| %-66s | %-42s | %9s | %9s | %6s | %13s | %-9s | %6s |\n", "operation",
              "compared with", "ours", "theirs", "ratio", "quartiles", "target", "MiB");
  std::printf("|:---|:---|---:|---:|---:|:---:|:---|---:|\n");
  std::fflush(stdout);
}

}  // namespace

void Compare(const TRow& Row, const TSide& Ours, const TSide& Theirs) {
  if (Tracing) {
    Trace(Row, "ours", Ours);
    Trace(Row, "theirs", Theirs);
    return;
  }
  const int ourRuns = Calibrate(Ours);
  const int theirRuns = Calibrate(Theirs);
  std::vector<double> ours, theirs, ratios;
  double spent = 0;
  while (ratios.size() < (spent < Patience ? LeastRounds : FewRounds) ||
         (spent < Budget && ratios.size() < MostRounds)) {
    // Who begins changes, so that a machine that becomes slower or faster favours neither.
    const bool oursFirst = ratios.size() % 2 == 0;
    if (oursFirst) ours.push_back(Time(Ours, ourRuns));
    theirs.push_back(Time(Theirs, theirRuns));
    if (!oursFirst) ours.push_back(Time(Ours, ourRuns));
    ratios.push_back((theirs.back() / Row.TheirUnits) / (ours.back() / Row.OurUnits));
    spent += ours.back() * ourRuns + theirs.back() * theirRuns;
  }
  const TQuartiles ratio = Quartiles(ratios);
  std::string target = "-";
  if (Row.Target > 0)
    target = Format("%.2f%s", Row.Target, ratio.Median < Row.Target ? " MISS" : "");
  std::printf(Line, Row.Name.c_str(), Row.Theirs.c_str(), ShowTime(Quartiles(ours).Median).c_str(),
              ShowTime(Quartiles(theirs).Median).c_str(), ratio.Median, ratio.Low, ratio.High,
              target.c_str(), PeakMemory());
  std::fflush(stdout);
}

TGroup::TGroup(const char* Name, void (*Body)(), bool Counts) {
  Groups().push_back({Name, Body, Counts});
}

TRole::TRole(const char* Name, void (*Body)(const std::vector<std::string>&)) {
  Roles().emplace(Name, Body);
}

namespace {

std::string Command(const std::string& Mode, const std::vector<std::string>& Arguments) {
  char program[MAX_PATH] = "";
  ::GetModuleFileNameA(nullptr, program, sizeof program);
  std::string command = Format("\"%s\" %s", program, Mode.c_str());
  for (const std::string& argument : Arguments) command += " \"" + argument + "\"";
  return command;
}

/// Runs a group in a child; false when it fails.
bool RunGroup(const std::string& Name) {
  std::string line = Command(Tracing ? "--trace-group" : "--group", {Name});
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION information{};
  if (!::CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &information)) {
    return false;
  }
  const velox::THandle process(information.hProcess);
  velox::THandle(information.hThread).Reset();
  ::WaitForSingleObject(process.Get(), INFINITE);
  DWORD code = 1;
  ::GetExitCodeProcess(process.Get(), &code);
  return code == 0;
}

int RunBody(const std::string& Name) {
  for (const TGroupEntry& group : Groups()) {
    if (group.Name == Name) group.Body();
  }
  return 0;
}

int RunAll(const std::string& Pattern) {
  if (!Tracing) PrintHeader();
  std::sort(Groups().begin(), Groups().end(),
            [](const TGroupEntry& A, const TGroupEntry& B) { return A.Name < B.Name; });
  bool good = true;
  for (const TGroupEntry& group : Groups()) {
    if (group.Name.find(Pattern) == std::string::npos || (Tracing && !group.Counts)) continue;
    if (RunGroup(group.Name)) continue;
    std::fprintf(stderr, "velox_bench: the rows \"%s\" failed\n", group.Name.c_str());
    good = false;
  }
  return good ? 0 : 1;
}

int Run(const std::vector<std::string>& Arguments) {
  const std::string mode = Arguments.empty() ? "" : Arguments[0];
  const std::vector<std::string> rest(Arguments.begin() + !Arguments.empty(), Arguments.end());
  const std::string name = rest.empty() ? "" : rest[0];
  Tracing = mode == "--trace" || mode == "--trace-group";
  if (mode == "--group" || mode == "--trace-group") return RunBody(name);
  if (mode == "--trace") return RunAll(name);
  if (mode == "--role") {
    Roles().at(name)({rest.begin() + 1, rest.end()});
    return 0;
  }
  if (mode == "--list") {
    for (const TGroupEntry& group : Groups()) std::printf("%s\n", group.Name.c_str());
    return 0;
  }
  return RunAll(mode);
}

}  // namespace

std::string RoleCommand(const std::string& Name, const std::vector<std::string>& Arguments) {
  std::vector<std::string> all = {Name};
  all.insert(all.end(), Arguments.begin(), Arguments.end());
  return Command("--role", all);
}

std::string SampleText(size_t Bytes) {
  std::mt19937 random(1);
  std::vector<std::string> words(2000);
  for (std::string& word : words) {
    for (size_t length = 2 + random() % 8; word.size() < length;)
      word += "etaoinshrdlucmfw"[random() % 16];
  }
  std::string text;
  text.reserve(Bytes + 16);
  // Small numbers are more likely, as frequent words are in real text.
  while (text.size() < Bytes) text += words[random() % (random() % words.size() + 1)] + " ";
  text.resize(Bytes);
  return text;
}

std::string SampleNoise(size_t Bytes) {
  std::mt19937 random(2);
  std::string noise(Bytes, '\0');
  for (char& byte : noise) byte = static_cast<char>(random());
  return noise;
}

}  // namespace bench

int main(int argc, char** argv) {
  try {
    return bench::Run({argv + 1, argv + argc});
  } catch (const std::exception& e) {
    std::fprintf(stderr, "velox_bench: %s\n", e.what());
    return 1;
  }
}
