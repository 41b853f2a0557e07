#include "progress.h"

#include <algorithm>

namespace vorelstat {
namespace {

constexpr auto kQuietStart = std::chrono::milliseconds(500);
constexpr auto kRedrawEvery = std::chrono::milliseconds(100);
constexpr int kBarWidth = 30;

std::string Megabytes(std::uint64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.0f MB", static_cast<double>(bytes) / 1e6);
  return text;
}

}  // namespace

ProgressBar::ProgressBar(bool enabled, std::optional<std::uint64_t> totalBytes, std::FILE* out)
    : _enabled(enabled), _total(totalBytes), _out(out), _start(Clock::now()), _lastDraw(_start) {}

std::string ProgressBar::Render(std::uint64_t done, std::optional<std::uint64_t> total,
                                double seconds) {
  std::string text;
  if (total && *total > 0) {
    const double fraction = std::min(1.0, static_cast<double>(done) / static_cast<double>(*total));
    const int filled = static_cast<int>(fraction * kBarWidth);
    char percent[8];
    std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(fraction * 100.0));
    text = std::string(percent) + " [" + std::string(static_cast<std::size_t>(filled), '#')
           + std::string(static_cast<std::size_t>(kBarWidth - filled), ' ') + "] " + Megabytes(done)
           + " of " + Megabytes(*total);
  } else {
    text = Megabytes(done) + " read";
  }
  if (seconds > 0.0) {
    char rate[32];
    std::snprintf(rate, sizeof rate, "  %.0f MB/s", static_cast<double>(done) / 1e6 / seconds);
    text += rate;
  }
  return text;
}

void ProgressBar::Update(std::uint64_t bytesDone) {
  if (!_enabled) return;
  const Clock::time_point now = Clock::now();
  if (now - _start < kQuietStart || now - _lastDraw < kRedrawEvery) return;
  _lastDraw = now;
  const double seconds = std::chrono::duration<double>(now - _start).count();
  std::fprintf(_out, "\r%s", Render(bytesDone, _total, seconds).c_str());
  std::fflush(_out);
  _drawn = true;
}

void ProgressBar::Finish() {
  if (!_drawn) return;
  std::fputs("\r\033[K", _out);
  std::fflush(_out);
  _drawn = false;
}

}  // namespace vorelstat
