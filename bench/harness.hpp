#pragma once

// Catch2 gives the parts that are easy to get wrong: finding how many repetitions make a run long
// enough to time, an object that times only what the body asks for (so that preparing and cleaning
// up don't count), and barriers that keep the optimiser from removing the work. Its own BENCHMARK
// is not used: it measures one function after the other, which on a machine that others use too
// says little about the ratio of two.
#define CATCH_CONFIG_ENABLE_BENCHMARKING
#include <catch2/catch.hpp>

#include <functional>
#include <string>
#include <vector>

/// Side-by-side benchmarks: every row is a ratio of two sides that were measured in turns within
/// one run.
namespace bench {

/// meter.runs() repetitions are asked for; what is given to meter.measure() is repeated that often
/// and timed.
using TMeter = Catch::Benchmark::Chronometer;
using TSide = std::function<void(TMeter)>;

/// A side that needs no preparation.
template <class F>
TSide Repeat(F Operation) {
  return [Operation](TMeter Meter) { Meter.measure(Operation); };
}

struct TRow {
  std::string Name;    ///< what is done once
  std::string Theirs;  ///< what ours is compared with
  double Target = 0;   ///< the ratio wanted; 0 for a row that is only shown
  /// Units of work in one repetition of each side, where they differ: the ratio is one of times per
  /// unit.
  double OurUnits = 1;
  double TheirUnits = 1;
};

/// Measures both sides in turns and prints the row: median times of one repetition, the median of
/// the rounds' ratios (time of theirs / time of ours, so that higher is better) with their
/// quartiles, and the most memory that this process has used so far.
void Compare(const TRow& Row, const TSide& Ours, const TSide& Theirs);

/// Rows that belong together; they run in a process of their own, so that neither threads nor
/// memory of one group weigh on another. Define one at namespace level.
struct TGroup {
  /// Counts says whether counting the requests to the system tells something about these rows.
  TGroup(const char* Name, void (*Body)(), bool Counts = false);
};

/// A part that a group runs in another process, started with StartRole.
struct TRole {
  TRole(const char* Name, void (*Body)(const std::vector<std::string>& Arguments));
};

/// The command line that plays a role.
std::string RoleCommand(const std::string& Name, const std::vector<std::string>& Arguments);

/// Words of changing length from a small vocabulary; always the same for one size.
std::string SampleText(size_t Bytes);
/// Bytes without order; always the same for one size.
std::string SampleNoise(size_t Bytes);

}  // namespace bench
