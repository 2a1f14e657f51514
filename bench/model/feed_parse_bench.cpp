// Parsing a generated document feed: the library's road (XmlReader, then DocsFeed::ParseFrom, then
// deleting both) beside a raw pugixml DOM parse of the same bytes (parse, count the entries, delete
// the document), in the same run, at feed sizes from 100 to 100,000 entries to show that the cost
// grows linearly with the number of entries.
//
//   feed_parse_bench [--quick] [--out FILE] [--sizes N,...]
//
// Times are the parsing thread's CPU time (user and system, page faults included), which other
// programs on a shared machine do not inflate; wall-clock times are printed beside them. Each round
// runs every road twice and times the second run, so that each timed parse finds the allocator as
// its own road leaves it (memory freed by the other road would flatter whichever came second); who
// goes first alternates between rounds. Figures are medians over the rounds.
#include <QByteArray>
#include <QString>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pugixml.hpp>
#include <string>
#include <vector>

#include "bench/suite/bench_common.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_reader.h"
#include "quire/model/docs_feed.h"
#include "quire/model/internal/xml_lookup.h"
#include "quire/model/link_relations.h"

namespace {

using Clock = std::chrono::steady_clock;

// One entry as the service writes it: every element the entry parser reads, a few that it skips,
// titles with entities and non-ASCII text.
void AppendEntry(QByteArray* out, int n) {
  static const char* const kTitles[] = {
      "Quarterly report &amp; forecast",
      "Caf\xc3\xa9 menu &#8211; \xc3\xa9t\xc3\xa9 2024",
      "\xe4\xbc\x9a\xe8\xad\xb0\xe3\x81\xae\xe8\xa8\x98\xe9\x8c\xb2 &lt;draft&gt;",
      "Stra\xc3\x9f"
      "e &quot;Nord&quot; &apos;plans&apos;",
      "\xd0\x9e\xd1\x82\xd1\x87\xd1\x91\xd1\x82 \xe2\x84\x96 5",
  };
  const QByteArray ns(kestrel::quire::SchemaNamespace);
  const QByteArray num = QByteArray::number(n);
  const QByteArray doc = "https://docs.quire.example/feeds/default/private/full/doc" + num;
  *out += "<entry qr:etag=\"&quot;Dk8" + num + "Q3sUfCt7ImA9WhNXEUo.&quot;\">";
  *out += "<id>https://docs.quire.example/feeds/id/doc" + num + "</id>";
  *out += "<published>2024-02-11T09:15:02.000Z</published>";
  *out += "<updated>2024-03-05T17:42:09.123Z</updated>";
  *out += "<category scheme=\"" + ns + "/g/2005#kind\" term=\"" + ns +
          "/docs/2007#document\" label=\"document\"/>";
  if (n % 3 == 0) {
    *out += "<category scheme=\"" + ns + "/g/2005/labels\" term=\"" + ns +
            "/g/2005/labels#starred\" label=\"starred\"/>";
  }
  *out += "<category scheme=\"" + ns + "/g/2005/labels\" term=\"" + ns +
          "/g/2005/labels#viewed\" label=\"viewed\"/>";
  *out += QByteArray("<title>") + kTitles[n % 5] + " " + num + "</title>";
  *out +=
      "<content type=\"application/vnd.oasis.opendocument.text\" "
      "src=\"https://docs.quire.example/content/doc" +
      num + "?e=v3&amp;format=odt\"/>";
  *out += "<link rel=\"alternate\" type=\"text/html\" href=\"https://docs.quire.example/view/doc" +
          num + "\"/>";
  *out += "<link rel=\"self\" type=\"application/atom+xml\" href=\"" + doc + "\"/>";
  *out += "<link rel=\"edit\" type=\"application/atom+xml\" href=\"" + doc + "\"/>";
  *out += "<link rel=\"edit-media\" href=\"https://docs.quire.example/media/doc" + num + "\"/>";
  *out += "<link rel=\"" + ns +
          "/g/2005#resumable-edit-media\" href=\"https://docs.quire.example/upload/"
          "create-session/default/private/full/doc" +
          num + "\"/>";
  *out +=
      "<author><name>Ana Mar\xc3\xad"
      "a</name><email>ana@quire.example</email></author>";
  *out += "<qr:feedLink rel=\"" + ns + "/acl/2007#accessControlList\" href=\"" + doc + "/acl\"/>";
  *out += "<qr:feedLink rel=\"" + ns + "/docs/2007/revisions\" href=\"" + doc + "/revisions\"/>";
  if (n % 17 == 0) *out += "<docs:removed/>";
  *out += "</entry>\n";
}

QByteArray MakeFeed(int entries) {
  const QByteArray ns(kestrel::quire::SchemaNamespace);
  QByteArray feed;
  feed.reserve(entries * 2100 + 2000);
  feed +=
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<feed xmlns=\"http://www.w3.org/2005/Atom\" "
      "xmlns:qr=\"" +
      ns + "/g/2005\" xmlns:docs=\"" + ns + "/docs/2007\" xmlns:openSearch=\"" + ns +
      "/opensearch/1.1/\" qr:etag=\"W/&quot;feed-etag&quot;\">\n";
  feed += "<id>https://docs.quire.example/feeds/default/private/full</id>";
  feed += "<updated>2024-03-05T17:42:10.500Z</updated><title>Available Documents</title>";
  feed += "<link rel=\"" + ns +
          "/g/2005#feed\" href=\"https://docs.quire.example/feeds/default/private/full\"/>";
  feed += "<link rel=\"" + ns +
          "/g/2005#post\" href=\"https://docs.quire.example/feeds/default/private/full/post\"/>";
  feed += "<link rel=\"" + ns +
          "/g/2005#batch\" href=\"https://docs.quire.example/feeds/default/private/full/batch\"/>";
  feed += "<link rel=\"" + ns +
          "/g/2005#resumable-create-media\" href=\"https://docs.quire.example/upload/"
          "create-session/default/private/full\"/>";
  feed += "<openSearch:totalResults>" + QByteArray::number(entries) +
          "</openSearch:totalResults><openSearch:startIndex>1</openSearch:startIndex>"
          "<openSearch:itemsPerPage>" +
          QByteArray::number(entries) + "</openSearch:itemsPerPage>\n";
  for (int n = 0; n < entries; ++n) AppendEntry(&feed, n);
  feed += "</feed>\n";
  return feed;
}

// The calling thread's CPU time in seconds.
double ThreadCpu() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

struct Times {
  double cpu = 0;
  double wall = 0;
};

// Starts timing at construction; Lap() gives the time since the last lap.
class Stopwatch {
 public:
  Stopwatch() : cpu_(ThreadCpu()), wall_(Clock::now()) {}
  Times Lap() {
    const double cpu = ThreadCpu();
    const Clock::time_point wall = Clock::now();
    Times times{cpu - cpu_, std::chrono::duration<double>(wall - wall_).count()};
    cpu_ = cpu;
    wall_ = wall;
    return times;
  }

 private:
  double cpu_;
  Clock::time_point wall_;
};

struct OursRun {
  Times total;
  // The parts: the reader's parse, the model's ParseFrom, deleting the feed, deleting the reader.
  Times reader, model, delete_feed, delete_reader;
  long long allocations = 0;
  std::size_t entries = 0;
  bool ok = false;
};

// The library's road: what the feed-list completion handler does with a body.
OursRun RunOurs(const QByteArray& bytes) {
  auto* mm = kestrel::MemoryManager::Default();
  OursRun run;
  const long long allocations_before = mm->total_allocations();
  Stopwatch watch;
  kestrel::XmlReader* reader = kestrel::doNew<kestrel::XmlReader>(bytes);
  run.reader = watch.Lap();
  kestrel::quire::DocsFeed* feed = kestrel::doNew<kestrel::quire::DocsFeed>();
  run.ok = !reader->GetErrorsOccurred() && feed->ParseFrom(reader->GetRootNode());
  run.entries = feed->entries.size();
  run.model = watch.Lap();
  kestrel::doDelete(feed);
  run.delete_feed = watch.Lap();
  kestrel::doDelete(reader);
  run.delete_reader = watch.Lap();
  run.total.cpu = run.reader.cpu + run.model.cpu + run.delete_feed.cpu + run.delete_reader.cpu;
  run.total.wall = run.reader.wall + run.model.wall + run.delete_feed.wall + run.delete_reader.wall;
  run.allocations = mm->total_allocations() - allocations_before;
  return run;
}

// The raw DOM parse of the same bytes (pugixml's default options), and a count of the entries so
// that both roads visibly did the whole job.
Times RunRaw(const QByteArray& bytes, std::size_t* entries) {
  Stopwatch watch;
  {
    pugi::xml_document document;
    const pugi::xml_parse_result result =
        document.load_buffer(bytes.constData(), static_cast<std::size_t>(bytes.size()),
                             pugi::parse_default, pugi::encoding_utf8);
    std::size_t count = 0;
    if (result) {
      for (pugi::xml_node child = document.document_element().child("entry"); child;
           child = child.next_sibling("entry")) {
        ++count;
      }
    }
    *entries = count;
  }
  return watch.Lap();
}

// The least any parser that fills these records must spend beyond finding the bytes: the entries'
// DocsEntry records with their five texts and five addresses, made from bytes already located by a
// pugixml parse (not timed), then deleted. Addresses take the model's own quickest road.
Times RunRecordsAlone(const QByteArray& bytes, std::size_t* entries) {
  pugi::xml_document document;
  document.load_buffer(bytes.constData(), static_cast<std::size_t>(bytes.size()),
                       pugi::parse_default, pugi::encoding_utf8);
  auto text = [](const char* utf8) { return QString::fromUtf8(utf8); };
  auto url = [](const char* utf8) {
    return kestrel::quire::internal::UrlFromAttribute(QString::fromUtf8(utf8));
  };
  Stopwatch watch;
  {
    kestrel::quire::DocsFeed feed;
    for (pugi::xml_node node = document.document_element().child("entry"); node;
         node = node.next_sibling("entry")) {
      auto* entry = kestrel::doNew<kestrel::quire::DocsEntry>();
      entry->etag = text(node.attribute("qr:etag").value());
      entry->id = text(node.child_value("id"));
      entry->updated = text(node.child_value("updated"));
      entry->title = text(node.child_value("title"));
      const pugi::xml_node content = node.child("content");
      entry->content_type = text(content.attribute("type").value());
      entry->content_src = url(content.attribute("src").value());
      for (pugi::xml_node link = node.child("link"); link; link = link.next_sibling("link")) {
        const char* rel = link.attribute("rel").value();
        if (std::strcmp(rel, "edit") == 0) {
          entry->edit_link = url(link.attribute("href").value());
        } else if (std::strcmp(rel, kestrel::quire::kResumableEditMediaRel) == 0) {
          entry->resumable_edit_media_link = url(link.attribute("href").value());
        }
      }
      for (pugi::xml_node link = node.child("qr:feedLink"); link;
           link = link.next_sibling("qr:feedLink")) {
        const char* rel = link.attribute("rel").value();
        if (std::strcmp(rel, kestrel::quire::kAclFeedRel) == 0) {
          entry->acl_feed_link = url(link.attribute("href").value());
        } else if (std::strcmp(rel, kestrel::quire::kRevisionsFeedRel) == 0) {
          entry->revisions_feed_link = url(link.attribute("href").value());
        }
      }
      feed.entries.push_back(entry);
    }
    *entries = feed.entries.size();
  }
  return watch.Lap();
}

struct Series {
  std::vector<double> cpu, wall;
  void Add(const Times& times) {
    cpu.push_back(times.cpu);
    wall.push_back(times.wall);
  }
};

struct Result {
  int entries = 0;
  double megabytes = 0;
  Series ours, raw, records, reader, model, delete_feed, delete_reader;
  double allocations_per_entry = 0;
};

Result Measure(int entries, int rounds) {
  const QByteArray bytes = MakeFeed(entries);
  Result result;
  result.entries = entries;
  result.megabytes = static_cast<double>(bytes.size()) / 1e6;
  auto ours = [&](bool timed) {
    const OursRun run = RunOurs(bytes);
    if (!run.ok || run.entries != static_cast<std::size_t>(entries)) {
      std::fprintf(stderr, "the feed did not parse (%zu entries)\n", run.entries);
      std::exit(1);
    }
    if (!timed) return;
    result.ours.Add(run.total);
    result.reader.Add(run.reader);
    result.model.Add(run.model);
    result.delete_feed.Add(run.delete_feed);
    result.delete_reader.Add(run.delete_reader);
    result.allocations_per_entry = static_cast<double>(run.allocations) / entries;
  };
  // A road that tells how many entries it found, which must be all of them.
  auto counting = [&](Times (*run)(const QByteArray&, std::size_t*), const char* found_text,
                      Series* series) {
    return [&bytes, entries, run, found_text, series](bool timed) {
      std::size_t found = 0;
      const Times times = run(bytes, &found);
      if (found != static_cast<std::size_t>(entries)) {
        std::fprintf(stderr, "%s %zu entries\n", found_text, found);
        std::exit(1);
      }
      if (timed) series->Add(times);
    };
  };
  auto raw = counting(RunRaw, "pugixml found", &result.raw);
  auto records = counting(RunRecordsAlone, "the records road made", &result.records);
  for (int round = 0; round < rounds; ++round) {
    for (int turn = 0; turn < 3; ++turn) {
      switch ((turn + round) % 3) {
        case 0:
          ours(false);
          ours(true);
          break;
        case 1:
          raw(false);
          raw(true);
          break;
        default:
          records(false);
          records(true);
          break;
      }
    }
  }
  return result;
}

double Median(const std::vector<double>& values) { return quire_bench::Median(values); }

std::vector<double> Milliseconds(const std::vector<double>& seconds) {
  std::vector<double> out;
  for (double s : seconds) out.push_back(s * 1e3);
  return out;
}

void Print(const Result& r) {
  const double ours = Median(r.ours.cpu);
  const double raw = Median(r.raw.cpu);
  const double us = 1e6 / r.entries;
  std::printf(
      "%8d %7.2f | %9.2f %9.2f | %9.2f %9.2f | %6.3fx | %7.2f | %6.3f | %6.2f %6.2f %6.2f %6.2f\n",
      r.entries, r.megabytes, ours * us, Median(r.ours.wall) * us, raw * us,
      Median(r.raw.wall) * us, raw / ours, Median(r.records.cpu) * us, r.allocations_per_entry,
      Median(r.reader.cpu) * us, Median(r.model.cpu) * us, Median(r.delete_feed.cpu) * us,
      Median(r.delete_reader.cpu) * us);
  std::fflush(stdout);
}

bool Report(const std::string& out, const Result& r, bool headline) {
  quire_bench::Row row;
  row.id = "feed.cpu.entries." + std::to_string(r.entries);
  row.title = "feed of " + std::to_string(r.entries) + " entries (" +
              std::to_string(static_cast<int>(r.megabytes * 10 + 0.5) / 10.0).substr(0, 5) +
              " MB), parse and delete";
  row.unit = "ms";
  row.ours_name = "XmlReader + DocsFeed::ParseFrom";
  row.peer_name = "pugixml DOM parse";
  row.ours = Milliseconds(r.ours.cpu);
  row.peer = Milliseconds(r.raw.cpu);
  row.lower_better = true;
  row.goal = headline ? 0.5 : 0;
  const double us = 1e6 / r.entries;
  row.note = quire_bench::Printf(
      "per entry: reader %.2f us, ParseFrom %.2f us, deleting the feed %.2f us, the "
      "reader %.2f us; %.2f memory-manager allocations per entry",
      Median(r.reader.cpu) * us, Median(r.model.cpu) * us, Median(r.delete_feed.cpu) * us,
      Median(r.delete_reader.cpu) * us, r.allocations_per_entry);
  if (!quire_bench::AppendRow(out, row, false)) return false;
  if (headline) {
    quire_bench::Row records = row;
    records.id = "feed.records.entries." + std::to_string(r.entries);
    records.title = "the records alone of " + std::to_string(r.entries) +
                    " entries (made from located bytes, no parsing), made and deleted";
    records.ours_name = "DocsEntry records";
    records.ours = Milliseconds(r.records.cpu);
    records.goal = 0;
    records.note.clear();
    if (!quire_bench::AppendRow(out, records, false)) return false;
  }
  // The same in wall-clock time, for comparison.
  row.id = "feed.wall.entries." + std::to_string(r.entries);
  row.title += " (wall clock)";
  row.ours = Milliseconds(r.ours.wall);
  row.peer = Milliseconds(r.raw.wall);
  row.goal = 0;
  row.note.clear();
  return quire_bench::AppendRow(out, row, false);
}

}  // namespace

int main(int argc, char** argv) {
  bool quick = false;
  std::string out;
  std::vector<int> sizes = {100, 300, 1000, 3000, 10000, 30000, 100000};
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--quick") {
      quick = true;
    } else if (arg == "--out" && i + 1 < argc) {
      out = argv[++i];
    } else if (arg == "--sizes" && i + 1 < argc) {
      sizes.clear();
      const std::string list = argv[++i];
      for (std::size_t at = 0; at < list.size();) {
        sizes.push_back(std::atoi(list.c_str() + at));
        const std::size_t comma = list.find(',', at);
        at = comma == std::string::npos ? list.size() : comma + 1;
      }
    } else {
      std::fprintf(stderr, "usage: %s [--quick] [--out FILE] [--sizes N,...]\n", argv[0]);
      return 2;
    }
  }
  std::printf(
      "Feed parse: XmlReader + DocsFeed::ParseFrom (ours) beside a raw pugixml DOM parse\n");
  std::printf(
      "of the same bytes, both including deletion. Times in microseconds per entry of the\n");
  std::printf(
      "thread's CPU time (and wall clock); ratio = raw CPU time / our CPU time. allocs =\n");
  std::printf("memory-manager allocations per entry; records = CPU time of making and deleting\n");
  std::printf("the entries' records alone from bytes already located (no parsing); the last\n");
  std::printf("four columns split our CPU time: reader parse, ParseFrom, deleting the feed,\n");
  std::printf("deleting the reader.\n\n");
  std::printf("%8s %7s | %9s %9s | %9s %9s | %7s | %7s | %6s | %6s %6s %6s %6s\n", "entries", "MB",
              "ours cpu", "ours wall", "raw cpu", "raw wall", "ratio", "records", "allocs",
              "reader", "model", "delF", "delR");
  for (int entries : sizes) {
    const int rounds = quick ? 3 : (entries <= 1000 ? 41 : entries <= 10000 ? 15 : 5);
    const Result result = Measure(entries, rounds);
    Print(result);
    if (!Report(out, result, entries == 10000)) return 1;
  }
  return 0;
}
