// Arbitrary header lists through the upload header readers: GetHeaderValue must return a suffix of
// the first line that starts with the key, and GetResumableStartPos must leave the position alone
// whenever it finds no "-" in a non-empty "Range" value.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "quire/upload/connection_utils.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  std::vector<QString> lines;
  const int count = input.ConsumeIntegralInRange<int>(0, 8);
  for (int i = 0; i < count; ++i) {
    std::string line = input.ConsumeRandomLengthString(200);
    if (input.ConsumeBool()) line = (input.ConsumeBool() ? "Range: " : "Location: ") + line;
    lines.push_back(QString::fromUtf8(line.data(), static_cast<int>(line.size())));
  }
  const std::string name = input.ConsumeRandomLengthString(20);
  const QString key = QString::fromUtf8(name.data(), static_cast<int>(name.size()));

  kestrel::quire::ConnectionUtils utils(16, nullptr);
  const QString value = utils.GetHeaderValue(&lines, key);
  bool found = false;
  for (const QString& line : lines) {
    if (line.startsWith(key + QStringLiteral(": "))) {
      if (value != line.mid(key.size() + 2)) std::abort();
      found = true;
      break;
    }
  }
  if (!found && !value.isEmpty()) std::abort();
  if (!utils.GetHeaderValue(nullptr, key).isEmpty()) std::abort();

  std::uint32_t position = 0xA5A5A5A5u;
  const bool read = utils.GetResumableStartPos(&lines, &position);
  const QString range = utils.GetHeaderValue(&lines, QStringLiteral("Range"));
  const int dash = range.indexOf(QLatin1Char('-'));
  if (range.isEmpty() || dash < 0) {
    if (read || position != 0xA5A5A5A5u) std::abort();
  } else {
    bool ok = false;
    const std::uint32_t expected = range.mid(dash + 1).toUInt(&ok, 10);
    if (read != ok || position != expected) std::abort();
  }
  return 0;
}
