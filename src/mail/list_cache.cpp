#include "mail/list_cache.h"

#include <cstdio>

#include "protocol/file_data_source.h"
#include "service/decimal_text.h"

namespace corvane {
namespace {

constexpr int kLineRoom = 1024;  // 1023 characters and the terminator

// One line without up to two trailing CR or LF; false at the end of the file.
bool ReadCacheLine(FileDataSource& file, std::string& line) {
  char buffer[kLineRoom];
  int length = file.ReadLine(buffer, kLineRoom);
  if (length <= 0) return false;
  for (int strip = 0; strip < 2 && length > 0; ++strip) {
    if (buffer[length - 1] != '\r' && buffer[length - 1] != '\n') break;
    --length;
  }
  line.assign(buffer, static_cast<size_t>(length));
  return true;
}

}  // namespace

const MailListItem* ListCache::Find(const std::string& uid) const {
  for (const MailListItem& item : items) {
    if (!item.uid.empty() && item.uid == uid) return &item;
  }
  return nullptr;
}

ListCache ReadListCache(const std::string& path) {
  ListCache cache;
  FileDataSource file(path);
  if (file.Open(DataSource::kOpenRead) != 0) return cache;
  std::string line;
  if (!ReadCacheLine(file, line)) return cache;
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
  FileDataSource file(path);
  if (file.Open(DataSource::kOpenWrite) != 0) return;
  file.WriteLine(std::to_string(items.size()).c_str());
  for (const MailListItem& item : items) {
    file.WriteLine(item.uid.c_str());
    file.WriteLine(std::to_string(item.time).c_str());
    file.WriteLine(item.row.c_str());
  }
  file.Close();
}

}  // namespace corvane
