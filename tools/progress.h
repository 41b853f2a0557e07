// A progress bar on standard error, for long runs on a terminal.
//
// It draws nothing unless enabled (main enables it when standard error is a
// terminal) and nothing in the first half second, so short runs stay quiet.
// Update is called from the serial stage of a pass, one thread at a time; it
// redraws at most ten times a second.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

namespace vorelstat {

class ProgressBar {
 public:
  ProgressBar(bool enabled, std::optional<std::uint64_t> totalBytes, std::FILE* out = stderr);
  ~ProgressBar() { Finish(); }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  void Update(std::uint64_t bytesDone);
  // Erases the bar, if one was drawn.
  void Finish();

  // The text of the bar, without the carriage return; public for the tests.
  static std::string Render(std::uint64_t done, std::optional<std::uint64_t> total, double seconds);

 private:
  using Clock = std::chrono::steady_clock;
  bool _enabled;
  std::optional<std::uint64_t> _total;
  std::FILE* _out;
  Clock::time_point _start;
  Clock::time_point _lastDraw;
  bool _drawn = false;
};

}  // namespace vorelstat
