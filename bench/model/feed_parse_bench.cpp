// Parsing a generated document feed: the library's road (XmlReader, then DocsFeed::ParseFrom)
// beside a raw pugixml DOM parse of the same bytes, in the same run. Prints MB/s, entries/s, the
// ratio of the two, the memory manager's allocations per entry, and the same at four feed sizes to
// show that the cost grows linearly with the number of entries.
//
//   feed_parse_bench [--quick]
//
// Each figure is the median of several timed runs that alternate between the two roads.
#include <QByteArray>
#include <QString>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <pugixml.hpp>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_reader.h"
#include "quire/model/docs_feed.h"
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

double Seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

struct OursRun {
  double seconds = 0;
  // The parts: the reader's parse, the model's ParseFrom, deleting the feed, deleting the reader.
  double reader_seconds = 0;
  double model_seconds = 0;
  double delete_feed_seconds = 0;
  double delete_reader_seconds = 0;
  long long allocations = 0;
  std::size_t entries = 0;
  bool ok = false;
};

// The library's road: what the feed-list completion handler does with a body.
OursRun RunOurs(const QByteArray& bytes) {
  auto* mm = kestrel::MemoryManager::Default();
  OursRun run;
  const long long allocations_before = mm->total_allocations();
  const Clock::time_point start = Clock::now();
  kestrel::XmlReader* reader = kestrel::doNew<kestrel::XmlReader>(bytes);
  const Clock::time_point parsed = Clock::now();
  kestrel::quire::DocsFeed* feed = kestrel::doNew<kestrel::quire::DocsFeed>();
  run.ok = !reader->GetErrorsOccurred() && feed->ParseFrom(reader->GetRootNode());
  run.entries = feed->entries.size();
  const Clock::time_point modelled = Clock::now();
  kestrel::doDelete(feed);
  const Clock::time_point feed_deleted = Clock::now();
  kestrel::doDelete(reader);
  const Clock::time_point end = Clock::now();
  run.seconds = std::chrono::duration<double>(end - start).count();
  run.reader_seconds = std::chrono::duration<double>(parsed - start).count();
  run.model_seconds = std::chrono::duration<double>(modelled - parsed).count();
  run.delete_feed_seconds = std::chrono::duration<double>(feed_deleted - modelled).count();
  run.delete_reader_seconds = std::chrono::duration<double>(end - feed_deleted).count();
  run.allocations = mm->total_allocations() - allocations_before;
  return run;
}

// The raw DOM parse of the same bytes (pugixml's default options), and a count of the entries so
// that both roads visibly did the whole job.
double RunRaw(const QByteArray& bytes, std::size_t* entries) {
  const Clock::time_point start = Clock::now();
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
  return Seconds(start);
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

struct Row {
  int entries;
  double megabytes;
  double ours;
  double reader;
  double model;
  double delete_feed;
  double delete_reader;
  double raw;
  double allocations_per_entry;
};

Row Measure(int entries, int runs) {
  const QByteArray bytes = MakeFeed(entries);
  std::vector<double> ours, reader, model, delete_feed, delete_reader, raw;
  long long allocations = 0;
  // One warm-up of each road, then alternating timed runs.
  std::size_t raw_entries = 0;
  RunOurs(bytes);
  RunRaw(bytes, &raw_entries);
  for (int i = 0; i < runs; ++i) {
    const OursRun run = RunOurs(bytes);
    if (!run.ok || run.entries != static_cast<std::size_t>(entries)) {
      std::fprintf(stderr, "the feed did not parse (%zu entries)\n", run.entries);
      std::exit(1);
    }
    ours.push_back(run.seconds);
    reader.push_back(run.reader_seconds);
    model.push_back(run.model_seconds);
    delete_feed.push_back(run.delete_feed_seconds);
    delete_reader.push_back(run.delete_reader_seconds);
    allocations = run.allocations;
    raw.push_back(RunRaw(bytes, &raw_entries));
    if (raw_entries != static_cast<std::size_t>(entries)) {
      std::fprintf(stderr, "pugixml found %zu entries\n", raw_entries);
      std::exit(1);
    }
  }
  return Row{entries,
             static_cast<double>(bytes.size()) / 1e6,
             Median(ours),
             Median(reader),
             Median(model),
             Median(delete_feed),
             Median(delete_reader),
             Median(raw),
             static_cast<double>(allocations) / entries};
}

void Print(const Row& row) {
  std::printf(
      "%8d %7.2f | %8.1f %10.0f | %8.1f %10.0f | %6.2fx | %6.3f | %7.2f %7.2f %7.2f %7.2f\n",
      row.entries, row.megabytes, row.megabytes / row.ours, row.entries / row.ours,
      row.megabytes / row.raw, row.entries / row.raw, row.raw / row.ours, row.allocations_per_entry,
      row.reader * 1e6 / row.entries, row.model * 1e6 / row.entries,
      row.delete_feed * 1e6 / row.entries, row.delete_reader * 1e6 / row.entries);
}

}  // namespace

int main(int argc, char** argv) {
  const bool quick = argc > 1 && std::strcmp(argv[1], "--quick") == 0;
  std::printf(
      "Feed parse: XmlReader + DocsFeed::ParseFrom (ours) beside a raw pugixml DOM parse\n");
  std::printf("of the same bytes. ratio = our speed / raw speed. allocs = memory-manager\n");
  std::printf(
      "allocations per entry on our road. The last four columns split our time per entry\n");
  std::printf(
      "(microseconds): reader parse, ParseFrom, deleting the feed, deleting the reader.\n\n");
  std::printf("%8s %7s | %8s %10s | %8s %10s | %7s | %6s | %7s %7s %7s %7s\n", "entries", "MB",
              "ours", "entries/s", "raw", "entries/s", "ratio", "allocs", "reader", "model",
              "del.feed", "del.rdr");
  std::printf("%8s %7s | %8s %10s | %8s %10s | %7s | %6s | %7s %7s %7s %7s\n", "", "", "MB/s", "",
              "MB/s", "", "", "/entry", "us", "us", "us", "us");
  const Row headline = Measure(10000, quick ? 3 : 15);
  Print(headline);
  std::printf("\nGrowth with the number of entries:\n");
  const int sizes[] = {100, 1000, 10000, 100000};
  for (int entries : sizes) {
    const int runs = quick ? 3 : (entries <= 1000 ? 101 : entries <= 10000 ? 15 : 5);
    Print(Measure(entries, runs));
  }
  return 0;
}
