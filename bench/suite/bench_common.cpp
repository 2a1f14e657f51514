#include "bench/suite/bench_common.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "tests/support/data_pattern.h"

extern char** environ;

namespace quire_bench {

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

namespace {

double CpuSeconds(const rusage& usage) {
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Runs `argv` with standard output into a pipe and returns what it wrote, or false when it could
// not be started or did not exit with 0.
bool Capture(std::vector<std::string> args, std::string* output, double* cpu_seconds = nullptr) {
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) return false;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, pipe_fds[0]);
  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipe_fds[1]);
  char buffer[512];
  ssize_t n;
  while ((n = read(pipe_fds[0], buffer, sizeof(buffer))) > 0) {
    output->append(buffer, static_cast<std::size_t>(n));
  }
  close(pipe_fds[0]);
  if (spawned != 0) return false;
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  if (cpu_seconds != nullptr) *cpu_seconds = CpuSeconds(usage);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

CurlTimes RunCurl(const std::vector<std::string>& args) {
  std::vector<std::string> all = {"curl",
                                  "-s",
                                  "-S",
                                  "--fail",
                                  "--http1.1",
                                  "-w",
                                  "%{time_total} %{time_pretransfer}",
                                  "--no-progress-meter"};
  all.insert(all.end(), args.begin(), args.end());
  CurlTimes times;
  std::string output;
  double cpu = 0;
  if (!Capture(all, &output, &cpu)) return times;
  times.cpu = cpu;
  std::istringstream in(output);
  double total = -1, pretransfer = 0;
  if (!(in >> total >> pretransfer)) return times;
  times.total = total;
  times.pretransfer = pretransfer;
  return times;
}

std::string CurlCommandVersion() {
  std::string output;
  if (!Capture({"curl", "--version"}, &output)) return std::string();
  return output.substr(0, output.find('\n'));
}

double ProcessCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return CpuSeconds(usage);
}

long long StatusKiB(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::string key = std::string(field) + ":";
  while (std::getline(status, line)) {
    if (line.compare(0, key.size(), key) == 0) return std::atoll(line.c_str() + key.size());
  }
  return -1;
}

bool ResetPeakRss() {
  std::FILE* file = std::fopen("/proc/self/clear_refs", "w");
  if (file == nullptr) return false;
  const bool ok = std::fputs("5", file) >= 0;
  return std::fclose(file) == 0 && ok;
}

void FillPseudoRandom(char* out, long long size, unsigned long long seed) {
  quire_test::FillPattern(out, quire_test::PatternStream(seed), static_cast<std::size_t>(size));
}

bool WriteFile(const std::string& path, const char* data, long long size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  long long written = 0;
  while (written < size) {
    const ssize_t n = write(fd, data + written, static_cast<std::size_t>(size - written));
    if (n <= 0) break;
    written += n;
  }
  return close(fd) == 0 && written == size;
}

namespace {

std::string Join(const std::vector<double>& values) {
  std::string out;
  char number[64];
  for (std::size_t i = 0; i < values.size(); ++i) {
    std::snprintf(number, sizeof(number), "%s%.6g", i == 0 ? "" : ",", values[i]);
    out += number;
  }
  return out;
}

void Echo(const Row& row) {
  const double ours = Median(row.ours);
  std::printf("  %-58s %12.1f %s", row.title.c_str(), ours, row.unit.c_str());
  if (!row.peer.empty()) {
    const double peer = Median(row.peer);
    const double ratio = row.lower_better ? peer / ours : ours / peer;
    std::printf("   %s %.1f   ratio %.3fx", row.peer_name.c_str(), peer, ratio);
  }
  if (!row.ours_cpu.empty()) {
    std::printf("   CPU %.3g", Median(row.ours_cpu));
    if (!row.peer_cpu.empty()) std::printf(" vs %.3g", Median(row.peer_cpu));
    std::printf(" %s", row.cpu_unit.c_str());
  }
  std::printf("\n");
  std::fflush(stdout);
}

}  // namespace

bool SplitServiceUrl(const std::string& url, std::string* scheme, std::string* address, int* port) {
  const std::size_t scheme_end = url.find("://");
  if (scheme_end == std::string::npos) return false;
  const std::string rest = url.substr(scheme_end + 3);
  const std::size_t colon = rest.rfind(':');
  if (colon == std::string::npos) return false;
  *scheme = url.substr(0, scheme_end);
  *address = rest.substr(0, colon);
  *port = std::atoi(rest.c_str() + colon + 1);
  return *port > 0;
}

bool AppendRow(const std::string& path, const Row& row, bool echo) {
  if (echo) Echo(row);
  if (path.empty()) return true;
  std::ofstream out(path, std::ios::app);
  char goal[32];
  std::snprintf(goal, sizeof(goal), "%g", row.goal);
  out << row.id << '\t' << row.title << '\t' << row.unit << '\t' << row.ours_name << '\t'
      << row.peer_name << '\t' << Join(row.ours) << '\t' << Join(row.peer) << '\t' << goal << '\t'
      << (row.lower_better ? 1 : 0) << '\t' << row.note << '\t' << row.cpu_unit << '\t'
      << Join(row.ours_cpu) << '\t' << Join(row.peer_cpu) << '\n';
  return static_cast<bool>(out);
}

bool PerformOneAfterAnother(CURLM* multi, CURL* easy, int count) {
  bool ok = true;
  for (int i = 0; i < count && ok; ++i) {
    curl_multi_add_handle(multi, easy);
    int running = 1;
    while (running > 0) {
      curl_multi_perform(multi, &running);
      if (running > 0) curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    int left = 0;
    CURLMsg* message = curl_multi_info_read(multi, &left);
    long code = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &code);
    ok = message != nullptr && message->data.result == CURLE_OK && code == 200;
    curl_multi_remove_handle(multi, easy);
  }
  return ok;
}

std::string Printf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start <= text.size()) {
    const std::size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return parts;
}

void CommandLine::Text(const char* name, std::string* out) {
  Custom(name, [out](const std::string& value) { *out = value; });
}

void CommandLine::Number(const char* name, int* out, int least) {
  Custom(name, [out, least](const std::string& value) {
    *out = std::max(least, std::atoi(value.c_str()));
  });
}

void CommandLine::Number(const char* name, long long* out, long long least) {
  Custom(name, [out, least](const std::string& value) {
    *out = std::max(least, std::atoll(value.c_str()));
  });
}

void CommandLine::Number(const char* name, double* out, double least) {
  Custom(name, [out, least](const std::string& value) {
    *out = std::max(least, std::atof(value.c_str()));
  });
}

void CommandLine::List(const char* name, std::vector<std::string>* out) {
  Custom(name, [out](const std::string& value) { *out = Split(value, ','); });
}

void CommandLine::Custom(const char* name, std::function<void(const std::string&)> apply) {
  options_.push_back({name, std::move(apply)});
}

void AddServiceOptions(ServiceOptions* options, CommandLine* command_line) {
  command_line->Text("--service", &options->service);
  command_line->Text("--ca", &options->ca);
  command_line->Text("--token", &options->token);
  command_line->Text("--out", &options->out);
  command_line->Number("--rounds", &options->rounds, 1);
}

bool SuiteOptions::Wants(const char* what) const {
  return only.empty() || std::find(only.begin(), only.end(), what) != only.end();
}

void AddSuiteOptions(SuiteOptions* options, CommandLine* command_line) {
  AddServiceOptions(options, command_line);
  command_line->Text("--work", &options->work);
  command_line->List("--only", &options->only);
}

bool CommandLine::Parse(int argc, char** argv, const char* usage) const {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const std::string value = i + 1 < argc ? std::string(argv[i + 1]) : std::string();
    bool known = false;
    for (const Option& option : options_) {
      if (arg != option.name) continue;
      option.apply(value);
      known = true;
      break;
    }
    if (!known) {
      std::fprintf(stderr, "usage: %s %s\n", argv[0], usage);
      return false;
    }
    ++i;
  }
  return true;
}

}  // namespace quire_bench
