#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace corvane {

// The header fields a message knows by number. The text of each (colon
// included) is the name written into a composed message and matched when a
// message is read; kFieldAll selects every field in the count, read and
// remove operations, and kFieldCustom is a field whose name the caller gives.
enum HeaderFieldId : int32_t {
  kFieldAll = 0,
  kFieldMessageId = 1,
  kFieldTo = 2,
  kFieldCc = 3,
  kFieldBcc = 4,
  kFieldFrom = 5,
  kFieldSubject = 6,
  kFieldReceived = 7,
  kFieldInReplyTo = 8,
  kFieldKeywords = 9,
  kFieldComments = 10,
  kFieldDate = 11,
  kFieldReplyTo = 12,
  kFieldReferences = 13,
  kFieldNewsgroups = 14,
  kFieldXref = 15,
  kFieldXMailer = 16,
  kFieldXNewsreader = 17,
  kFieldMimeVersion = 18,
  kFieldThreadTopic = 19,
  kFieldContentType = 20,
  kFieldCustom = 21,
};

// The fixed text of a field id 0-21 ("Subject:" for kFieldSubject; the text
// of kFieldAll ends in a space instead of a colon), or null for any other
// number.
const char* HeaderFieldText(int32_t id);

// The id whose text, without its colon, equals `name` in any letter case
// ("subject" gives kFieldSubject); kFieldCustom for every other name.
HeaderFieldId HeaderFieldIdOfName(std::string_view name);

// One entry of a message's header list: the field's name as stored (the
// table text, or a custom name ending in a space) and its data, the value
// as given, without the name.
struct HeaderEntry {
  std::string name;
  std::string data;
  int32_t id = kFieldCustom;
};

}  // namespace corvane
