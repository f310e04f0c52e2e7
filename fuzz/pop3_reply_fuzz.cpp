// The POP3 client reading a server's greeting and replies from the fuzz
// bytes: login, STAT, the UIDL listing, LIST, a TOP header listing and a
// RETR, as ListMail and ReceiveMail run them.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "base/limits.h"
#include "fuzz_check.h"
#include "loopback_peer.h"
#include "protocol/pop3_client.h"
#include "stream/buffer_data_source.h"

namespace {

// A message's room in this run; a longer RETR is cut here, as a full cache
// file would be.
constexpr int64_t kRetrieveRoom = 64 * 1024;

using corvane::fuzz::Check;

// The ids are the server's words, and ReceiveMail finds a message by its id:
// each one is a single bounded word, and no more are kept than the mailbox
// may hold.
void CheckUids(const corvane::Pop3Client& client) {
  const auto& uids = client.UidList();
  Check(uids.size() <= static_cast<size_t>(corvane::limits::kMaxMessages), "too many ids kept");
  for (const auto& entry : uids) {
    Check(!entry.uid.empty() && entry.uid.size() <= corvane::Pop3Client::kMaxUidLength &&
              entry.uid.find_first_of(" \r\n") == std::string::npos,
          "an id that is not one bounded word");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static corvane::fuzz::LoopbackPeer peer;
  peer.Serve(std::string_view(reinterpret_cast<const char*>(data), size));
  {
    corvane::Pop3Client client;
    client.SetPort(peer.port());
    client.SetPOP3TimeOut(1);
    client.SetReceiveTimeOut(1000);
    if (client.POP3Connect("127.0.0.1", "joe", "secret") == 0) {
      int count = 0;
      client.GetNumMsgs(&count);
      client.GetUIDL(0);
      CheckUids(client);
      for (int i = 1; i <= count && i <= 1000; ++i) client.GetUID(i);
      for (const auto& entry : client.UidList()) client.GetUID(entry.number);
      long messageSize = 0;
      client.GetMsgSize(1, &messageSize);
      if (client.OpenTop(1, 0) == 0) {
        char line[corvane::Pop3Client::kResponseSize];
        while (client.ReadTopLine(line, sizeof line) > 0) {
        }
        client.CloseTop();
      }
      client.SetMaxRetrieveBytes(kRetrieveRoom);
      corvane::BufferDataSource message(kRetrieveRoom);
      client.RetrieveToDataSource(1, message);
      client.GetUIDL(1);
      CheckUids(client);
      client.POP3Close();
    }
  }
  peer.Finish();
  return 0;
}
