// Turns the result rows of one bench/run (see bench_common.h) into docs/BENCHMARKS.md and the data
// files that bench/report/plots.gp draws.
//
// Usage: bench_report --results FILE --machine FILE --notes FILE --data DIR --out FILE
//   --machine  "key<TAB>value" lines describing the machine and the run, in the order to show;
//   --notes    Markdown appended after the results (what was changed, figures before and after);
//   --data     where the plot data files go (transfer_SCHEME.dat, chunk_SCHEME.dat, feed.dat).
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "bench/suite/bench_common.h"

namespace {

using quire_bench::Median;

struct Row {
  std::string id, title, unit, ours_name, peer_name, note, cpu_unit;
  std::vector<double> ours, peer, ours_cpu, peer_cpu;
  double goal = 0;
  bool lower_better = false;

  // kind.scheme.axis.x
  std::string Part(int index) const {
    std::size_t start = 0;
    for (int i = 0; i < index; ++i) start = id.find('.', start) + 1;
    return id.substr(start, id.find('.', start) - start);
  }
  double X() const { return std::atof(Part(3).c_str()); }
  bool HasPeer() const { return !peer.empty(); }
  // ours / peer, turned so that above 1 means we are better.
  double Ratio() const {
    const double a = Median(ours), b = Median(peer);
    return lower_better ? b / a : a / b;
  }
  // Whether the row has a goal. A goal of 0 means none, except for the wake-ups of an idle host,
  // whose goal is exactly 0.
  bool HasGoal() const { return goal != 0 || id.rfind("qtloop.idle.", 0) == 0; }
  bool GoalMet() const {
    if (HasPeer()) return Ratio() >= goal;
    return lower_better ? Median(ours) <= goal : Median(ours) >= goal;
  }
};

std::vector<double> Numbers(const std::string& text) {
  std::vector<double> values;
  std::stringstream in(text);
  std::string part;
  while (std::getline(in, part, ',')) {
    if (!part.empty()) values.push_back(std::atof(part.c_str()));
  }
  return values;
}

bool ReadRows(const std::string& path, std::vector<Row>* rows) {
  std::ifstream in(path);
  if (!in) return false;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty()) continue;
    std::vector<std::string> f = quire_bench::Split(line, '\t');
    f.resize(13);
    Row row;
    row.id = f[0];
    row.title = f[1];
    row.unit = f[2];
    row.ours_name = f[3];
    row.peer_name = f[4];
    row.ours = Numbers(f[5]);
    row.peer = Numbers(f[6]);
    row.goal = std::atof(f[7].c_str());
    row.lower_better = f[8] == "1";
    row.note = f[9];
    row.cpu_unit = f[10];
    row.ours_cpu = Numbers(f[11]);
    row.peer_cpu = Numbers(f[12]);
    if (row.ours.empty()) continue;
    // A later row with the same id (a measurement run again) replaces the earlier one.
    auto same = std::find_if(rows->begin(), rows->end(),
                             [&row](const Row& other) { return other.id == row.id; });
    if (same != rows->end()) {
      *same = row;
    } else {
      rows->push_back(row);
    }
  }
  return true;
}

std::string Format(double value) {
  char text[64];
  const double magnitude = value < 0 ? -value : value;
  if (magnitude >= 1000) {
    std::snprintf(text, sizeof(text), "%.0f", value);
  } else if (magnitude >= 100) {
    std::snprintf(text, sizeof(text), "%.1f", value);
  } else if (magnitude >= 1) {
    std::snprintf(text, sizeof(text), "%.2f", value);
  } else {
    std::snprintf(text, sizeof(text), "%.3f", value);
  }
  return text;
}

// "median (min–max)"
std::string Spread(const std::vector<double>& values) {
  if (values.empty()) return "";
  const auto bounds = std::minmax_element(values.begin(), values.end());
  if (values.size() == 1) return Format(values[0]);
  return Format(Median(values)) + " (" + Format(*bounds.first) + "–" + Format(*bounds.second) + ")";
}

std::string RatioText(double ratio) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.2fx", ratio);
  return text;
}

// The rows of the given kinds (the first part of their id), in the order they were written.
std::vector<const Row*> OfKind(const std::vector<Row>& rows,
                               std::initializer_list<const char*> kinds) {
  std::vector<const Row*> out;
  for (const Row& row : rows) {
    const std::string kind = row.Part(0);
    for (const char* wanted : kinds) {
      if (kind == wanted) {
        out.push_back(&row);
        break;
      }
    }
  }
  return out;
}

// The rows whose id starts with `prefix`, by their x.
std::vector<const Row*> Series(const std::vector<Row>& rows, const std::string& prefix) {
  std::vector<const Row*> out;
  for (const Row& row : rows) {
    if (row.id.compare(0, prefix.size(), prefix) == 0) out.push_back(&row);
  }
  std::sort(out.begin(), out.end(), [](const Row* a, const Row* b) { return a->X() < b->X(); });
  return out;
}

void Table(std::ostream& out, const std::vector<const Row*>& rows) {
  if (rows.empty()) return;
  bool cpu = false;
  for (const Row* row : rows) cpu = cpu || !row->ours_cpu.empty();
  out << "| measurement | unit | ours | peer | ratio |" << (cpu ? " client CPU, ours / peer |" : "")
      << "\n|---|---|---|---|---|" << (cpu ? "---|" : "") << "\n";
  for (const Row* row : rows) {
    out << "| " << row->title << " | " << row->unit
        << (row->lower_better ? " (less is better)" : "") << " | " << Spread(row->ours) << " | ";
    if (row->HasPeer()) {
      out << Spread(row->peer) << " | **" << RatioText(row->Ratio()) << "** |";
    } else {
      out << "– | – |";
    }
    if (cpu) {
      if (row->ours_cpu.empty()) {
        out << " |";
      } else {
        out << " " << Format(Median(row->ours_cpu));
        if (!row->peer_cpu.empty()) out << " / " << Format(Median(row->peer_cpu));
        out << " " << row->cpu_unit.substr(row->cpu_unit.find(' ') + 1) << " |";
      }
    }
    out << "\n";
  }
  out << "\n";
  bool any_note = false;
  for (const Row* row : rows) any_note = any_note || !row->note.empty();
  if (any_note) {
    for (const Row* row : rows) {
      if (!row->note.empty()) out << "- " << row->title << ": " << row->note << "\n";
    }
    out << "\n";
  }
}

// Columns: x, then median, min and max of each row's ours and peer.
// Nothing is written for fewer than two points: no plot is made of them.
void WriteSeries(const std::string& path, const std::vector<const Row*>& rows, double x_scale) {
  if (rows.size() < 2) return;
  std::ofstream out(path);
  out << "# x ours_median ours_min ours_max peer_median peer_min peer_max\n";
  for (const Row* row : rows) {
    out << row->X() * x_scale;
    for (const std::vector<double>* values : {&row->ours, &row->peer}) {
      if (values->empty()) {
        out << " NaN NaN NaN";
        continue;
      }
      const auto bounds = std::minmax_element(values->begin(), values->end());
      out << ' ' << Median(*values) << ' ' << *bounds.first << ' ' << *bounds.second;
    }
    out << '\n';
  }
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

}  // namespace

int main(int argc, char** argv) {
  std::map<std::string, std::string> args;
  for (int i = 1; i + 1 < argc; i += 2) args[argv[i]] = argv[i + 1];
  for (const char* needed : {"--results", "--machine", "--data", "--out"}) {
    if (args.count(needed) == 0) {
      std::fprintf(stderr,
                   "usage: %s --results FILE --machine FILE [--notes FILE] --data DIR --out FILE\n",
                   argv[0]);
      return 2;
    }
  }
  std::vector<Row> rows;
  if (!ReadRows(args["--results"], &rows) || rows.empty()) {
    std::fprintf(stderr, "bench_report: no results in %s\n", args["--results"].c_str());
    return 1;
  }
  std::vector<std::pair<std::string, std::string>> machine;
  {
    std::ifstream in(args["--machine"]);
    std::string line;
    while (std::getline(in, line)) {
      const std::size_t tab = line.find('\t');
      if (tab != std::string::npos) machine.emplace_back(line.substr(0, tab), line.substr(tab + 1));
    }
  }

  const std::string data = args["--data"];
  std::vector<std::string> schemes;
  for (const Row& row : rows) {
    const std::string kind = row.Part(0);
    if ((kind == "upload" || kind == "download" || kind == "small") &&
        std::find(schemes.begin(), schemes.end(), row.Part(1)) == schemes.end()) {
      schemes.push_back(row.Part(1));
    }
  }
  for (const std::string& scheme : schemes) {
    WriteSeries(data + "/upload_" + scheme + ".dat", Series(rows, "upload." + scheme + ".size."),
                1);
    WriteSeries(data + "/download_" + scheme + ".dat",
                Series(rows, "download." + scheme + ".size."), 1);
    WriteSeries(data + "/chunk_" + scheme + ".dat", Series(rows, "upload." + scheme + ".chunk."),
                1);
  }
  WriteSeries(data + "/feed.dat", Series(rows, "feed.cpu.entries."), 1);

  std::ofstream out(args["--out"]);
  out << "# Benchmarks\n\n"
         "Written by `bench/run`, which builds the project in release mode, starts the emulator "
         "(`quire-server`, over HTTPS and plain HTTP, data folder in memory) on 127.0.0.1, and "
         "measures every operation beside a peer that does the same job, in the same run, in "
         "alternating turns, over several rounds. Figures are medians with the lowest and highest "
         "round in brackets. A ratio above 1 means quire is faster than its peer (for times, the "
         "peer's time divided by ours). Do not edit this page: run `bench/run` again.\n\n";

  out << "## Machine and run\n\n| | |\n|---|---|\n";
  for (const auto& item : machine) out << "| " << item.first << " | " << item.second << " |\n";
  out << "\n";

  out << "## Goals\n\n| goal | measured | target | met |\n|---|---|---|---|\n";
  for (const Row& row : rows) {
    if (!row.HasGoal()) continue;
    out << "| " << row.title << " | ";
    if (row.HasPeer()) {
      out << RatioText(row.Ratio()) << " of " << row.peer_name << " | ≥ " << RatioText(row.goal);
    } else {
      out << Format(Median(row.ours)) << " " << row.unit << " | "
          << (row.lower_better ? "≤ " : "≥ ") << Format(row.goal) << " " << row.unit;
    }
    out << " | " << (row.GoalMet() ? "yes" : "**no**") << " |\n";
  }
  out << "\n";

  out << "## Uploads and downloads\n\n"
         "Ours: resumable upload through `ConnectionUtils`, `Connection` and the HTTPS transport "
         "(POST to open the session, then one PUT per chunk), and `DocsService::GetEntryContent` "
         "for downloads; each runs on a keep-alive connection that is already open. Peer: the "
         "`curl` command (`curl -T FILE` PUT to the same document, from a file in memory; "
         "`curl -o /dev/null`), timed by curl itself without its connection set-up. Client CPU is "
         "the user and system time of the whole client process, every thread, per GiB moved.\n\n";
  for (const std::string& scheme : schemes) {
    std::vector<const Row*> transfer;
    std::vector<std::string> titles;  // the largest upload is in both series: show it once
    for (const Row& row : rows) {
      if ((row.Part(0) == "upload" || row.Part(0) == "download") && row.Part(1) == scheme &&
          std::find(titles.begin(), titles.end(), row.title) == titles.end()) {
        transfer.push_back(&row);
        titles.push_back(row.title);
      }
    }
    if (transfer.empty()) continue;
    out << "### " << scheme << "\n\n";
    Table(out, transfer);
    if (Series(rows, "upload." + scheme + ".size.").size() >= 2) {
      out << "![throughput against size, " << scheme << "](bench/transfer_" << scheme
          << ".svg)\n\n";
    }
    if (Series(rows, "upload." + scheme + ".chunk.").size() >= 2) {
      out << "![upload throughput against chunk size, " << scheme << "](bench/chunk_" << scheme
          << ".svg)\n\n";
    }
  }

  out << "## Small requests\n\n"
         "GETs of a 512-byte document's content one after another on one keep-alive connection: "
         "ours issue each `DocsService::GetEntryContent` from the completion of the one before "
         "(the request crosses from the main loop to the transport's I/O thread and its completion "
         "back); the peer is a plain libcurl multi loop on one thread with one reused handle. The "
         "two alternate in blocks of a twentieth of the requests. Allocations are counted by the "
         "memory manager (our code's; Qt's, libcurl's and the standard library's own are not).\n\n";
  Table(out, OfKind(rows, {"small", "allocs"}));

  out << "## Feed parsing\n\n"
         "A generated feed (each entry as the service writes it, about 1.6 KB) read by `XmlReader` "
         "and `DocsFeed::ParseFrom`, then both deleted; the peer parses the same bytes into a "
         "pugixml DOM (default options), counts the entries and deletes the document. Times are "
         "the parsing thread's CPU time, which other programs on a shared machine do not inflate; "
         "each round runs each road twice and times the second run, so that both find the "
         "allocator as their own previous run left it.\n\n";
  {
    std::vector<const Row*> feed = Series(rows, "feed.cpu.entries.");
    Table(out, feed);
    const std::vector<const Row*> records = Series(rows, "feed.records.entries.");
    if (!records.empty()) {
      out << "The least that any parser filling these records must spend beyond finding the "
             "bytes, beside the whole pugixml parse (see the notes at the end):\n\n";
      Table(out, records);
    }
    const std::vector<const Row*> wall = Series(rows, "feed.wall.entries.");
    if (!wall.empty()) {
      out << "The same in wall-clock time:\n\n";
      Table(out, wall);
    }
    if (feed.size() >= 2)
      out << "![feed parse time against the number of entries](bench/feed.svg)\n\n";
  }

  out << "## Hosts on Qt's event loop\n\n"
         "A host whose main thread runs Qt's event loop with a `QtEventLoopDriver`, beside a host "
         "that waits in `MainLoop::RunUntil()`, in the same process and run. Wake-ups are the main "
         "thread's voluntary context switches (each one a sleep that ended) while no request is "
         "outstanding, less the one timer that ends the measurement. Latency is from a job posted "
         "on another thread, as the HTTPS transport posts a completion, to its run on the main "
         "thread. The upload goes to the emulator over HTTPS; each chunk is issued from the "
         "completion of the one before.\n\n";
  Table(out, OfKind(rows, {"qtloop"}));

  out << "## Memory\n\n";
  Table(out, OfKind(rows, {"memory"}));

  if (args.count("--notes") != 0) out << ReadAll(args["--notes"]);
  return out ? 0 : 1;
}
