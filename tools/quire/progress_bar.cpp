#include "tools/quire/progress_bar.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace quire_cli {
namespace {

constexpr int kBarWidth = 24;
constexpr double kRedrawInterval = 0.1;

}  // namespace

ProgressBar::ProgressBar(std::ostream* out, std::int64_t total, std::int64_t start)
    : out_(out), total_(total), start_(start) {}

void ProgressBar::Update(std::int64_t bytes, double seconds) {
  const bool complete = bytes >= total_;
  if (!complete && last_draw_ >= 0 && seconds - last_draw_ < kRedrawInterval) return;
  last_draw_ = seconds;
  const double moved = static_cast<double>(bytes - start_);
  const double rate = seconds > 0 && moved > 0 ? moved / seconds : 0;
  // The line only grows or keeps its length between redraws, but pad anyway so that a shorter
  // line never leaves characters of a longer one behind.
  std::string line = Line(bytes, total_, rate, retries_);
  line.resize(std::max<std::size_t>(line.size(), 72), ' ');
  *out_ << '\r' << line << std::flush;
  drawn_ = true;
}

void ProgressBar::Finish() {
  if (drawn_ && !finished_) *out_ << '\n' << std::flush;
  finished_ = true;
}

std::string ProgressBar::Line(std::int64_t bytes, std::int64_t total, double bytes_per_second,
                              int retries) {
  const double fraction =
      total > 0 ? std::min(1.0, static_cast<double>(bytes) / static_cast<double>(total)) : 1.0;
  const int filled = static_cast<int>(std::floor(fraction * kBarWidth));
  std::string line = "[";
  line.append(static_cast<std::size_t>(filled), '#');
  line.append(static_cast<std::size_t>(kBarWidth - filled), '.');
  line += "]  ";
  line += Size(static_cast<double>(bytes)) + " / " + Size(static_cast<double>(total));
  if (bytes_per_second > 0) {
    line += "  " + Size(bytes_per_second) + "/s";
    if (bytes < total) {
      line += "  " + Duration(static_cast<double>(total - bytes) / bytes_per_second) + " left";
    }
  }
  if (retries > 0) line += "  " + std::to_string(retries) + (retries == 1 ? " retry" : " retries");
  return line;
}

std::string ProgressBar::Size(double bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  char text[32];
  if (bytes < 1024) {
    std::snprintf(text, sizeof text, "%.0f B", bytes);
    return text;
  }
  int unit = -1;
  while (bytes >= 1024 && unit < 3) {
    bytes /= 1024;
    ++unit;
  }
  std::snprintf(text, sizeof text, "%.1f %s", bytes, kUnits[unit]);
  return text;
}

std::string ProgressBar::Duration(double seconds) {
  const long long whole = static_cast<long long>(std::ceil(seconds));
  char text[32];
  if (whole < 60) {
    std::snprintf(text, sizeof text, "%lld s", whole);
  } else if (whole < 3600) {
    std::snprintf(text, sizeof text, "%lld min %02lld s", whole / 60, whole % 60);
  } else {
    std::snprintf(text, sizeof text, "%lld h %02lld min", whole / 3600, whole / 60 % 60);
  }
  return text;
}

}  // namespace quire_cli
