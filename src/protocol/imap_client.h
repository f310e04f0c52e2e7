#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/command_client.h"
#include "protocol/imap_response.h"
#include "stream/data_source.h"

namespace corvane {

// Reads INBOX of an IMAP mailbox, read-only: LOGIN, EXAMINE INBOX, the UIDs,
// the header fields of many messages in one UID FETCH, a whole message with
// BODY.PEEK (nothing is marked seen), IDLE, NOOP and LOGOUT, over plain TCP,
// implicit TLS (port 993) or STARTTLS. Every operation returns 0 or a result
// code (net_codes.h); a response that breaks the reader's bounds or syntax
// closes the connection, whose responses could no longer be told apart.
class ImapClient : public CommandClient {
 public:
  ImapClient();  // port 143
  ~ImapClient() override;

  // Connects to `host`: on 993 TLS from the first byte; on another port,
  // with security enabled, STARTTLS when the capabilities offer it (a
  // refusal gives kNetImapNoStartTls, a failed handshake its code; nothing
  // goes on in the clear after either), in the clear when not offered; a
  // PREAUTH greeting in the clear then gives kNetImapNoStartTls too (it
  // could be forged to keep the session in the clear). Then LOGIN
  // (kNetLoginFailed) and EXAMINE INBOX (kNetInvalidResponse when refused or
  // without a UIDVALIDITY). A greeting other than OK or PREAUTH gives
  // kNetConnectFailed. CR or LF in `user` or `password` gives
  // kNetInvalidParameter before anything is sent.
  int Open(const char* host, const char* user, const char* password);
  uint32_t UidValidity() const { return uidValidity_; }
  // Messages in INBOX as last announced, at most limits::kMaxMessages.
  uint32_t Exists() const { return exists_; }
  // Whether the server announced `name` (any case) in its last capabilities.
  bool HasCapability(std::string_view name) const;

  // Every UID of INBOX, ascending (mailbox order), at most kMaxMessages;
  // kNetUidlFailed when refused. Nothing is asked of an empty INBOX.
  int FetchUids(std::vector<uint32_t>& uids);
  // One UID FETCH of the header fields `fields` (header-field names; none:
  // the whole header) of every message of `uids`; `each` gets each message
  // the server returns, in its order, its header cut at kMaxHeaderBytes
  // (one announced past kMaxImapLiteralBytes breaks the response), each
  // message once and only those asked for. kNetTopFailed when refused,
  // kNetInvalidParameter (nothing sent) for a field that is not a name.
  int FetchHeaders(const std::vector<uint32_t>& uids, const std::vector<std::string>& fields,
                   const std::function<void(uint32_t uid, std::string header)>& each);
  // The whole message `uid` into `dest` (opened for writing, closed after).
  // kNetBodyTooLong, nothing written, when it is larger than `maxBytes` (0:
  // no limit; the connection is closed, the rest of the message unread);
  // kNetNoSuchMessage when the server does not return it, kNetRetrFailed
  // when it refuses.
  int FetchMessage(uint32_t uid, DataSource& dest, int64_t maxBytes);
  // IDLE for at most `seconds`: 1 when INBOX changed (EXISTS, EXPUNGE,
  // RECENT), 0 when the time ran out, else a code (kNetNotSupported without
  // the IDLE capability). An abort (IsAborted) ends it within 200 ms, with
  // the connection closed.
  int Idle(int seconds);
  // 1 when the server announced a change, 0 none, else a code
  // (kNetNoopFailed when refused).
  int Noop();
  // LOGOUT, its reply, and the close.
  int Logout();

  int SocketOnConnected(int socket, const char* host) override;
  // The port that speaks TLS from its first byte: 993 (tests move it).
  void SetImplicitTlsPort(unsigned port) { implicitTlsPort_ = port; }

  // The text the client writes for `text` as a command argument: a quoted
  // string when it is 7-bit printable, else a literal "{n}" ("{n+}" with
  // LITERAL+) to be followed by the bytes on the next line.
  static bool NeedsLiteral(std::string_view text);
  static std::string Quote(std::string_view text);
  // `uids` as a compact set: "1:3,7,9:10" (sorted, duplicates dropped).
  static std::string UidSet(std::vector<uint32_t> uids);

 private:
  class SocketSource;

  std::string NextTag();
  // Reads one response; 0 or a code (the connection closed on a broken one).
  // Untagged news (EXISTS, EXPUNGE, RECENT, CAPABILITY, UIDVALIDITY, BYE)
  // is taken in on the way.
  int Read(ImapResponse& response, const ImapLiteralTap& tap = nullptr);
  // Reads responses to the tagged one of `tag`: 0 for OK, `refused` for NO
  // or BAD; each untagged one goes to `each`.
  int Finish(const std::string& tag, int refused,
             const std::function<void(const ImapResponse&)>& each = nullptr,
             const ImapLiteralTap& tap = nullptr);
  // Sends "tag command" and finishes it.
  int Run(const std::string& command, int refused,
          const std::function<void(const ImapResponse&)>& each = nullptr,
          const ImapLiteralTap& tap = nullptr);
  // Reads to the "+" go-ahead of a literal or IDLE: 0, or `refused` when
  // the tagged reply of `tag` comes instead.
  int AwaitGoAhead(const std::string& tag, int refused);
  void TakeCapabilities(const std::vector<ImapItem>& items, size_t from);
  // STARTTLS, the handshake, and the capabilities asked again inside.
  int StartTls();
  int Login(const char* user, const char* password);
  int Broken(int code);  // closes the connection, returns `code`

  unsigned implicitTlsPort_ = 993;
  std::string host_;
  int tagNumber_ = 0;
  std::vector<std::string> capabilities_;
  bool capabilitiesKnown_ = false;
  bool changed_ = false;
  bool bye_ = false;
  uint32_t uidValidity_ = 0;
  uint32_t exists_ = 0;
};

}  // namespace corvane
