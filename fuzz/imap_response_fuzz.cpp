// The IMAP response reader fed the fuzz bytes from memory, then the IMAP
// client reading a server's greeting and responses from them: login,
// EXAMINE, the UIDs, one FETCH of many headers, a message, IDLE, NOOP and
// LOGOUT, as the mail layer runs them.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/limits.h"
#include "fuzz_check.h"
#include "loopback_peer.h"
#include "protocol/imap_client.h"
#include "stream/buffer_data_source.h"

namespace {

// A message's room in this run; a larger body is refused, as a full cache
// would be.
constexpr int64_t kMessageRoom = 64 * 1024;

using corvane::ImapItem;
using corvane::fuzz::Check;
namespace limits = corvane::limits;

// Counts the items of `items`, all depths, checking each one's bounds.
size_t CheckItems(const std::vector<ImapItem>& items, int depth) {
  Check(depth <= limits::kMaxImapDepth, "lists nested past the bound");
  size_t count = items.size();
  for (const ImapItem& item : items) {
    Check(item.text.size() <= limits::kMaxImapResponseBytes, "an item past the response's room");
    if (item.kind == ImapItem::Kind::kLiteral) {
      Check(item.text.size() <= limits::kMaxHeaderBytes && item.text.size() <= item.number,
            "a literal kept past its bound or its size");
      Check(item.cut == (item.text.size() < item.number), "a cut literal not marked");
    }
    count += CheckItems(item.items, depth + 1);
  }
  return count;
}

void ParseFromMemory(std::string_view bytes) {
  corvane::MemoryByteSource source(bytes);
  corvane::ImapResponse response;
  for (int n = 0; n < 1000 && !source.AtEnd(); ++n) {
    if (corvane::ReadImapResponse(source, response) != corvane::ImapRead::kOk) return;
    size_t items = CheckItems(response.items, 1) + CheckItems(response.code, 1);
    Check(items <= limits::kMaxImapItems, "more items than the bound");
    Check(response.type != corvane::ImapResponse::Type::kTagged || !response.status.empty(),
          "a tagged response without a status");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  ParseFromMemory(bytes);
  static corvane::fuzz::LoopbackPeer peer;
  peer.Serve(bytes);
  {
    corvane::ImapClient client;
    client.SetPort(peer.port());
    client.SetReplyTimeOut(1);
    client.SetReceiveTimeOut(1000);
    if (client.Open("127.0.0.1", "joe", "secret") == 0) {
      Check(client.Exists() <= static_cast<uint32_t>(limits::kMaxMessages),
            "EXISTS past the bound");
      std::vector<uint32_t> uids;
      client.FetchUids(uids);
      Check(uids.size() <= static_cast<size_t>(limits::kMaxMessages), "too many UIDs kept");
      Check(std::is_sorted(uids.begin(), uids.end()) &&
                std::adjacent_find(uids.begin(), uids.end()) == uids.end(),
            "UIDs not ascending and distinct");
      std::vector<uint32_t> asked(uids.begin(), uids.begin() + std::min<size_t>(uids.size(), 50));
      if (asked.empty()) asked = {1, 2, 3, 7};
      std::vector<uint32_t> handed;
      client.FetchHeaders(
          asked, {"SUBJECT", "FROM", "DATE"}, [&](uint32_t uid, const std::string& header) {
            Check(header.size() <= limits::kMaxHeaderBytes, "a header past its bound");
            Check(std::find(asked.begin(), asked.end(), uid) != asked.end(),
                  "a header for a message not asked for");
            Check(std::find(handed.begin(), handed.end(), uid) == handed.end(),
                  "a message's header handed twice");
            handed.push_back(uid);
          });
      corvane::BufferDataSource message(kMessageRoom);
      client.FetchMessage(asked.front(), message, kMessageRoom);
      Check(message.Data().size() <= static_cast<size_t>(kMessageRoom), "a body past its room");
      client.Idle(1);
      client.Noop();
      client.Logout();
    }
  }
  peer.Finish();
  return 0;
}
