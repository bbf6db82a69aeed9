#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velcopy {

using velox::Format;

enum class TShow { Bar, Lines, None };

class TProgress {
 public:
  TProgress(TShow Show, uint64_t Total) : Show_(Show), Total_(Total) {}
  ~TProgress() {
    if (OpenLine_) std::printf("\n");
  }

  void Update(uint64_t Done) {
    const ULONGLONG now = ::GetTickCount64();
    const bool last = Done == Total_;
    if (Show_ == TShow::None || (!last && now - Shown_ < (Show_ == TShow::Bar ? 100u : 1000u)))
      return;
    Shown_ = now;
    const double seconds = static_cast<double>(now - Start_) / 1000;
    const double rate = seconds > 0 ? static_cast<double>(Done) / seconds : 0;
    const double left = rate > 0 ? static_cast<double>(Total_ - Done) / rate : 0;
    const double part = Total_ == 0 ? 1 : static_cast<double>(Done) / static_cast<double>(Total_);
    const std::string text = Format("%3.0f%%  %s  %.1f MiB/s  %.0f s left", part * 100,
                                    Amount(Done).c_str(), rate / MiB, left);
    if (Show_ == TShow::Lines) {
      std::printf("%s\n", text.c_str());
    } else {
      const auto filled = static_cast<size_t>(part * 16);
      std::string bar = std::string(filled, '#') + std::string(16 - filled, '.');
      std::printf("\r[%s] %-60.60s", bar.c_str(), text.c_str());  // 79 columns
      OpenLine_ = true;
    }
    std::fflush(stdout);
  }

 private:
  static constexpr double MiB = 1 << 20;

  std::string Amount(uint64_t Done) const {
    const auto done = static_cast<double>(Done), total = static_cast<double>(Total_);
    return total < MiB ? Format("%.0f of %.0f bytes", done, total)
                       : Format("%.1f of %.1f MiB", done / MiB, total / MiB);
  }

  const TShow Show_;
  const uint64_t Total_;
  const ULONGLONG Start_ = ::GetTickCount64();
  ULONGLONG Shown_ = Start_;
  bool OpenLine_ = false;
};

inline bool OnConsole() {
  DWORD mode;
  return ::GetConsoleMode(::GetStdHandle(STD_OUTPUT_HANDLE), &mode) != FALSE;
}

}  // namespace velcopy
