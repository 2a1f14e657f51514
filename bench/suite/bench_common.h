// Pieces that the benchmark programs of bench/run share: timing, medians, the curl command as a
// peer, resident-memory readings, and the result rows that bench_report turns into the report.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace quire_bench {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start);
double Median(std::vector<double> values);

// What the curl command reported for one transfer: the whole time and the part spent before the
// first body byte could go (name lookup, TCP and TLS set-up). A negative `total` means it failed.
struct CurlTimes {
  double total = -1;
  double pretransfer = 0;
  // User and system CPU time of the curl process.
  double cpu = 0;
  // The transfer alone, as a client on an open keep-alive connection would see it.
  double transfer() const { return total - pretransfer; }
};

// Runs `curl -s -S --fail --http1.1` with `args` added, standard output to /dev/null unless the
// arguments redirect it. Returns what -w reported.
CurlTimes RunCurl(const std::vector<std::string>& args);

// Performs `easy` `count` times one after another on `multi` (which it is not part of), as a plain
// libcurl client does: the least libcurl can do per request. False at the first transfer that
// fails or answers other than 200.
bool PerformOneAfterAnother(CURLM* multi, CURL* easy, int count);

// The version line of the curl command ("curl 7.88.1 ..."), or empty.
std::string CurlCommandVersion();

// User and system CPU time of this process so far, every thread included.
double ProcessCpuSeconds();

// Fields of /proc/self/status in KiB, or -1.
long long StatusKiB(const char* field);
// Sets the process's peak resident size back to its current size; false when the kernel does not
// allow it.
bool ResetPeakRss();

// Fills `size` bytes at `out` with the tests' data pattern (incompressible, touching every page),
// the stream numbered `seed`.
void FillPseudoRandom(char* out, long long size, unsigned long long seed);
// printf's formatting into a string of whatever length it needs.
std::string Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Writes `size` bytes to `path`; false on failure.
bool WriteFile(const std::string& path, const char* data, long long size);

// Splits a service address "SCHEME://ADDRESS:PORT" into its parts; false when `url` is not of that
// form or the port is not above 0. The caller decides which schemes it accepts.
bool SplitServiceUrl(const std::string& url, std::string* scheme, std::string* address, int* port);

// One line of results for the report: a measurement of ours beside its peer, in the same run.
// `ours` and `peer` hold one figure per round in `unit` (higher is better unless `lower_better`).
// Rows go to the file named by the --out option, one per line, tab-separated.
struct Row {
  std::string id;     // "upload.https.size.1024": kind.scheme.axis.x
  std::string title;  // for the table
  std::string unit;   // "MiB/s", "req/s", "ms", ...
  std::string ours_name;
  std::string peer_name;  // empty when the row has no peer
  std::vector<double> ours;
  std::vector<double> peer;
  double goal =
      0;  // the ratio ours/peer to reach (or, with lower_better, the most allowed); 0: none
  bool lower_better = false;
  std::string note;  // free text for the table
  // The client's CPU time (user and system, every thread) per round, in `cpu_unit`; may be empty.
  std::string cpu_unit;
  std::vector<double> ours_cpu;
  std::vector<double> peer_cpu;
};

// Appends `row` to `path` (creating it; an empty path writes nothing), and with `echo` prints a
// one-line summary on standard output.
bool AppendRow(const std::string& path, const Row& row, bool echo = true);

// The parts of `text` between the `separator`s (one empty part for an empty text).
std::vector<std::string> Split(const std::string& text, char separator);

// The command line of a benchmark program: options of the form "--name value", each naming where
// its value goes. A missing value reads as empty (so a number as 0, then raised to its least).
class CommandLine {
 public:
  // The value as text.
  void Text(const char* name, std::string* out);
  // The value as a whole number, at least `least`.
  void Number(const char* name, int* out, int least);
  void Number(const char* name, long long* out, long long least);
  // The value as a decimal number, at least `least`.
  void Number(const char* name, double* out, double least);
  // The value's comma-separated parts.
  void List(const char* name, std::vector<std::string>* out);
  // The value, handed to `apply`.
  void Custom(const char* name, std::function<void(const std::string&)> apply);

  // Reads `argv`; on an option it does not know, prints "usage: PROGRAM `usage`" on standard error
  // and returns false.
  bool Parse(int argc, char** argv, const char* usage) const;

 private:
  struct Option {
    std::string name;
    std::function<void(const std::string&)> apply;
  };
  std::vector<Option> options_;
};

// The options of every benchmark program that talks to the emulator.
struct ServiceOptions {
  std::string service;  // SCHEME://ADDRESS:PORT
  std::string ca;       // the authority to trust
  std::string token = "quire-demo-token";
  std::string out;  // the result rows' file; empty: none
  int rounds = 5;
};

// Adds --service, --ca, --token, --out and --rounds (at least 1) for `options`.
void AddServiceOptions(ServiceOptions* options, CommandLine* command_line);

// The options of a benchmark program that writes its data to a work folder and measures several
// things, of which --only picks some.
struct SuiteOptions : ServiceOptions {
  std::string work = "/tmp";
  std::vector<std::string> only;  // empty: everything

  // Whether `what` is to be measured.
  bool Wants(const char* what) const;
};

// Adds the service options, --work and --only (a comma-separated list) for `options`.
void AddSuiteOptions(SuiteOptions* options, CommandLine* command_line);

}  // namespace quire_bench
