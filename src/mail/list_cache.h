#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace corvane {

// One message of a listing: its date, id and the row sent to the client (five
// counted strings: id, sender, subject, date text, attachment flag).
struct MailListItem {
  int32_t time = 0;
  std::string uid;
  std::string row;
};

// The rows of a mailbox kept between listings in "list.cache": the item
// count, then id, time and row, each on a line ending in CR LF.
struct ListCache {
  // The count line; items holds the triples that could be read, at most
  // that many.
  int32_t count = 0;
  std::vector<MailListItem> items;
};

// Reads a cache file; a missing file gives an empty cache, a cut-short one
// the triples before the cut.
ListCache ReadListCache(const std::string& path);
// Replaces the cache file with these items.
void WriteListCache(const std::string& path, const std::vector<MailListItem>& items);

}  // namespace corvane
