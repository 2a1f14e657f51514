// Building the XmlNode tree of a generated 10,000-entry document-list feed with XmlReader (over
// pugixml) and with Qt's QXmlStreamReader, side by side with a raw pugixml DOM parse of the same
// bytes as the reference; then the hostile documents (an entity-expansion bomb and 100,000 nested
// elements) that must be refused quickly and cheaply.
//
// Figures: MB/s and entries/s, the speed relative to the raw pugixml parse, heap allocations per
// entry (every malloc of the process: Qt's, pugixml's and ours) and the memory manager's share of
// them, and for the hostile documents the time and the peak heap growth of one parse.
#include <benchmark/benchmark.h>

#include <pugixml.hpp>

#include <QByteArray>
#include <QXmlStreamReader>
#include <cstdio>
#include <string>
#include <vector>

#include "atom_feed_generator.h"
#include "heap_counter.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_reader.h"
#include "stream_reader_tree.h"

namespace {

constexpr int kEntries = 10000;

const QByteArray& Feed() {
  static const QByteArray feed = quire_bench::xml::GenerateAtomFeed(kEntries);
  return feed;
}

QByteArray BillionLaughs() {
  QByteArray document("<?xml version='1.0'?>\n<!DOCTYPE lolz [\n <!ENTITY lol 'lol'>\n");
  document += " <!ENTITY lol1 '&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;&lol;'>\n";
  for (int i = 2; i <= 9; ++i) {
    QByteArray line = " <!ENTITY lol" + QByteArray::number(i) + " '";
    for (int k = 0; k < 10; ++k) line += "&lol" + QByteArray::number(i - 1) + ";";
    document += line + "'>\n";
  }
  document += "]>\n<lolz>&lol9;</lolz>\n";
  return document;
}

QByteArray DeepNesting() {
  QByteArray document;
  document.reserve(100000 * 7);
  for (int i = 0; i < 100000; ++i) document += "<a>";
  for (int i = 0; i < 100000; ++i) document += "</a>";
  return document;
}

// What one parse costs in allocations (and the tree's freeing with it): counted on one parse
// outside the timed loop, so that counting does not slow the timed parses.
struct Allocations {
  long long heap = 0;     // every malloc of the process
  long long managed = 0;  // those made through the memory manager
  long long peak_bytes = 0;
};

template <typename Parse>
Allocations CountOne(Parse parse) {
  auto* manager = kestrel::MemoryManager::Default();
  Allocations counted;
  quire_bench::xml::HeapCounter::SetCounting(true);
  quire_bench::xml::HeapCounter::ResetPeak();
  const long long live_before = quire_bench::xml::HeapCounter::live_bytes();
  const long long heap_before = quire_bench::xml::HeapCounter::allocations();
  const long long managed_before = manager->total_allocations();
  parse();
  counted.heap = quire_bench::xml::HeapCounter::allocations() - heap_before;
  counted.managed = manager->total_allocations() - managed_before;
  counted.peak_bytes = quire_bench::xml::HeapCounter::peak_bytes() - live_before;
  quire_bench::xml::HeapCounter::SetCounting(false);
  return counted;
}

// Times `parse` on the feed and reports MB/s, entries/s and the allocations of one parse per entry.
template <typename Parse>
void RunFeed(benchmark::State& state, Parse parse) {
  const QByteArray& feed = Feed();
  const Allocations counted = CountOne([&] { parse(feed, state); });
  for (auto _ : state) parse(feed, state);
  state.SetBytesProcessed(state.iterations() * feed.size());
  state.counters["entries/s"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * kEntries, benchmark::Counter::kIsRate);
  if (quire_bench::xml::HeapCounter::available()) {
    state.counters["heap_allocs/entry"] = static_cast<double>(counted.heap) / kEntries;
    state.counters["peak_heap_MB"] = static_cast<double>(counted.peak_bytes) / (1024.0 * 1024.0);
  }
  state.counters["mm_allocs/entry"] = static_cast<double>(counted.managed) / kEntries;
}

void BM_RawPugixmlDom(benchmark::State& state) {
  RunFeed(state, [](const QByteArray& feed, benchmark::State& s) {
    pugi::xml_document document;
    const pugi::xml_parse_result result =
        document.load_buffer(feed.constData(), static_cast<std::size_t>(feed.size()));
    if (!result) s.SkipWithError("raw pugixml refused the feed");
    benchmark::DoNotOptimize(document.first_child().internal_object());
  });
}

void BM_XmlReader(benchmark::State& state) {
  RunFeed(state, [](const QByteArray& feed, benchmark::State& s) {
    kestrel::XmlReader reader(feed);
    if (reader.GetErrorsOccurred()) s.SkipWithError("XmlReader refused the feed");
    benchmark::DoNotOptimize(reader.GetRootNode());
  });
}

void BM_QXmlStreamReaderTree(benchmark::State& state) {
  RunFeed(state, [](const QByteArray& feed, benchmark::State& s) {
    quire_bench::xml::StreamReaderTree tree(feed);
    if (tree.errors_occurred()) s.SkipWithError("QXmlStreamReader refused the feed");
    benchmark::DoNotOptimize(tree.root());
  });
}

// Only the tokens, no tree: the least any tree built on QXmlStreamReader costs.
void BM_QXmlStreamReaderTokensOnly(benchmark::State& state) {
  RunFeed(state, [](const QByteArray& feed, benchmark::State& s) {
    QXmlStreamReader reader(feed);
    reader.setNamespaceProcessing(false);
    long long tokens = 0;
    while (!reader.atEnd()) {
      reader.readNext();
      ++tokens;
    }
    if (reader.hasError()) s.SkipWithError("QXmlStreamReader refused the feed");
    benchmark::DoNotOptimize(tokens);
  });
}

// One refused document: time per parse, and the peak heap growth of a single parse.
template <typename Parse>
void RunHostile(benchmark::State& state, const QByteArray& document, Parse parse) {
  bool refused = true;
  const Allocations counted = CountOne([&] { refused = parse(document); });
  if (!refused) state.SkipWithError("the hostile document was accepted");
  for (auto _ : state) benchmark::DoNotOptimize(parse(document));
  state.SetBytesProcessed(state.iterations() * document.size());
  if (quire_bench::xml::HeapCounter::available()) {
    state.counters["peak_heap_MB"] = static_cast<double>(counted.peak_bytes) / (1024.0 * 1024.0);
  }
}

bool ReaderRefuses(const QByteArray& document) {
  kestrel::XmlReader reader(document);
  return reader.GetErrorsOccurred() && reader.GetRootNode() == nullptr;
}

bool StreamReaderRefuses(const QByteArray& document) {
  quire_bench::xml::StreamReaderTree tree(document);
  return tree.errors_occurred();
}

void BM_XmlReader_BillionLaughs(benchmark::State& state) {
  RunHostile(state, BillionLaughs(), ReaderRefuses);
}
void BM_XmlReader_Nesting100k(benchmark::State& state) {
  RunHostile(state, DeepNesting(), ReaderRefuses);
}
void BM_QXmlStreamReader_BillionLaughs(benchmark::State& state) {
  RunHostile(state, BillionLaughs(), StreamReaderRefuses);
}
void BM_QXmlStreamReader_Nesting100k(benchmark::State& state) {
  RunHostile(state, DeepNesting(), StreamReaderRefuses);
}

BENCHMARK(BM_RawPugixmlDom)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_XmlReader)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_QXmlStreamReaderTree)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_QXmlStreamReaderTokensOnly)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_XmlReader_BillionLaughs)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_XmlReader_Nesting100k)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QXmlStreamReader_BillionLaughs)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_QXmlStreamReader_Nesting100k)->Unit(benchmark::kMillisecond);

// Prints the usual console table and keeps the runs for the side-by-side summary.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) runs_.push_back(run);
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintSummary() const {
    const double mb = static_cast<double>(Feed().size()) / 1e6;
    std::printf("\nFeed: %d entries, %.2f MB\n", kEntries, mb);
    std::printf("%-24s %9s %9s %11s %8s %14s %12s %13s\n", "tree builder", "ms/parse", "MB/s",
                "entries/s", "vs raw", "heap allocs/e", "MM allocs/e", "peak heap MB");
    double raw = 0;
    for (const Run& run : runs_) {
      if (run.benchmark_name() == "BM_RawPugixmlDom/min_time:2.000") raw = Seconds(run);
    }
    for (const Run& run : runs_) {
      const std::string name = run.benchmark_name();
      const char* label = nullptr;
      if (name.rfind("BM_RawPugixmlDom", 0) == 0) label = "raw pugixml DOM";
      if (name.rfind("BM_XmlReader/", 0) == 0) label = "XmlReader (pugixml)";
      if (name.rfind("BM_QXmlStreamReaderTree", 0) == 0) label = "QXmlStreamReader tree";
      if (name.rfind("BM_QXmlStreamReaderTokens", 0) == 0) label = "QXmlStreamReader tokens";
      if (label == nullptr) continue;
      const double seconds = Seconds(run);
      std::printf("%-24s %9.2f %9.1f %11.0f %7.2fx %14s %12s %13s\n", label, seconds * 1e3,
                  mb / seconds, kEntries / seconds, raw > 0 ? raw / seconds : 0.0,
                  Counter(run, "heap_allocs/entry").c_str(),
                  Counter(run, "mm_allocs/entry").c_str(), Counter(run, "peak_heap_MB").c_str());
    }
    std::printf("\n%-36s %12s %14s\n", "hostile document", "ms/parse", "peak heap MB");
    for (const Run& run : runs_) {
      const std::string name = run.benchmark_name();
      if (name.find("BillionLaughs") == std::string::npos &&
          name.find("Nesting100k") == std::string::npos) {
        continue;
      }
      std::printf("%-36s %12.3f %14s\n", name.c_str() + 3, Seconds(run) * 1e3,
                  Counter(run, "peak_heap_MB").c_str());
    }
    std::printf(
        "(CPU time per parse, tree freed included; \"vs raw\" is the speed relative to the raw "
        "pugixml parse: 0.50x is half as fast.)\n");
  }

 private:
  static double Seconds(const Run& run) {
    return run.cpu_accumulated_time / static_cast<double>(run.iterations);
  }
  static std::string Counter(const Run& run, const char* name) {
    const auto found = run.counters.find(name);
    if (found == run.counters.end()) return "n/a";
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", found->second.value);
    return text;
  }
  std::vector<Run> runs_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintSummary();
  benchmark::Shutdown();
  return 0;
}
