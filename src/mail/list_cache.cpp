#include "mail/list_cache.h"

#include <cstdio>
#include <fstream>

#include "base/decimal_text.h"
#include "stream/file_data_source.h"

namespace corvane {
namespace {

// One line without its CR LF; false at the end of the file. Lines are read
// whole: a cut at a fixed length would turn the rest of a long row into
// lines of their own.
bool ReadCacheLine(std::istream& file, std::string& line) {
  if (!std::getline(file, line)) return false;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return true;
}

// A line break or NUL inside a value would split it into rows of its own
// when the cache is read back: such an item is not kept.
bool FitsOnALine(const std::string& text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos;
}

}  // namespace

ListCache ReadListCache(const std::string& path) {
  ListCache cache;
  std::ifstream file(path, std::ios::binary);
  std::string line;
  if (!file || !ReadCacheLine(file, line)) return cache;
  cache.count = ReadDecimal(line);
  // Only triples actually read are kept: slots past a cut never match anyway.
  for (int32_t i = 0; i < cache.count; ++i) {
    MailListItem item;
    std::string time;
    if (!ReadCacheLine(file, item.uid) || !ReadCacheLine(file, time) ||
        !ReadCacheLine(file, item.row)) {
      break;
    }
    item.time = ReadDecimal(time);
    cache.items.push_back(std::move(item));
  }
  return cache;
}

void WriteListCache(const std::string& path, const std::vector<MailListItem>& items) {
  std::remove(path.c_str());
  std::vector<const MailListItem*> kept;
  for (const MailListItem& item : items) {
    if (FitsOnALine(item.uid) && FitsOnALine(item.row)) kept.push_back(&item);
  }
  FileDataSource file(path);
  if (file.Open(DataSource::kOpenWrite) != 0) return;
  file.WriteLine(std::to_string(kept.size()).c_str());
  for (const MailListItem* item : kept) {
    file.WriteLine(item->uid.c_str());
    file.WriteLine(std::to_string(item->time).c_str());
    file.WriteLine(item->row.c_str());
  }
  file.Close();
}

}  // namespace corvane
