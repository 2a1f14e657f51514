// The one-line progress display of an upload on a terminal: a bar, bytes confirmed, rate and time
// left, redrawn in place.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

namespace quire_cli {

class ProgressBar {
 public:
  // Draws on `out` (borrowed) for a transfer of `total` bytes of which `start` were already held
  // before this run (a resumed upload): the rate counts only what this run moves.
  ProgressBar(std::ostream* out, std::int64_t total, std::int64_t start);

  // `bytes` are now confirmed, `seconds` after the start of this run. Redraws at most ten times a
  // second, and always when the transfer is complete.
  void Update(std::int64_t bytes, double seconds);
  // The requests retried so far after transient failures; shown on the line from the next redraw.
  void set_retries(int retries) { retries_ = retries; }
  // Ends the line (once, and only if something was drawn).
  void Finish();

  // The text of the line, without the carriage return: e.g.
  // "[##########..........]  10.0 MiB / 20.0 MiB  5.0 MiB/s  2 s left", followed by
  // "  2 retries" when `retries` is not 0.
  static std::string Line(std::int64_t bytes, std::int64_t total, double bytes_per_second,
                          int retries = 0);
  // 1536 -> "1.5 KiB"; below 1 KiB in bytes ("512 B").
  static std::string Size(double bytes);
  // 5 -> "5 s", 125 -> "2 min 05 s", 3720 -> "1 h 02 min".
  static std::string Duration(double seconds);

 private:
  std::ostream* out_;
  std::int64_t total_;
  std::int64_t start_;
  double last_draw_ = -1;
  bool drawn_ = false;
  bool finished_ = false;
  int retries_ = 0;
};

}  // namespace quire_cli
