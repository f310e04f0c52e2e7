#include "protocol/imap_client.h"

#include <algorithm>
#include <chrono>

#include "base/ascii_text.h"
#include "base/limits.h"
#include "protocol/command_text.h"
#include "protocol/net_codes.h"

namespace corvane {
namespace {

using Type = ImapResponse::Type;
using Kind = ImapItem::Kind;

// A header-field name as FETCH takes it: an atom of letters, digits and '-'.
bool IsFieldName(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
  });
}

// The value after the atom `name` in a FETCH list, or null.
const ImapItem* ValueOf(const std::vector<ImapItem>& list, std::string_view name) {
  for (size_t i = 0; i + 1 < list.size(); i += 2) {
    if (list[i].IsAtom(name)) return &list[i + 1];
  }
  return nullptr;
}

// The item list of "* n FETCH (...)", or null for any other response.
const std::vector<ImapItem>* FetchList(const ImapResponse& response) {
  uint64_t number = 0;
  if (!response.NumberBefore("FETCH", number) || response.items.size() < 3 ||
      response.items[2].kind != Kind::kList) {
    return nullptr;
  }
  return &response.items[2].items;
}

// The UID a FETCH list names, or 0.
uint32_t UidOf(const std::vector<ImapItem>& list) {
  const ImapItem* uid = ValueOf(list, "UID");
  return uid != nullptr && uid->kind == Kind::kNumber && uid->number <= UINT32_MAX
             ? static_cast<uint32_t>(uid->number)
             : 0;
}

// A message body's literal goes to its destination as it comes; one too
// large for it stops the response before a byte is written.
class BodySink : public ImapLiteralSink {
 public:
  explicit BodySink(DataSource& dest) : dest_(dest) {}
  bool Write(const char* bytes, size_t length) override {
    if (tooLong) return false;
    written = true;
    return dest_.Write(bytes, static_cast<int>(length)) == static_cast<int>(length) ||
           (writeFailed = true, false);
  }
  bool tooLong = false, written = false, writeFailed = false;

 private:
  DataSource& dest_;
};

}  // namespace

// The socket as the response reader's byte source. Every wait is cut in
// slices of 200 ms up to the reply time-out, and only bytes already come are
// taken, so that an abort is seen soon even amid a line or a literal.
class ImapClient::SocketSource : public ImapByteSource {
 public:
  explicit SocketSource(ImapClient& client) : client_(client) {}
  Line ReadLine(std::string& line, size_t limit) override {
    line.clear();
    char piece[4096];
    while (line.size() < limit) {
      if (!Ready()) return Line::kEnded;
      // Within what has come: the next read waits in slices again.
      size_t room = std::min(
          {static_cast<size_t>(client_.ReadAheadBytes()), sizeof piece - 1, limit - line.size()});
      int n = client_.ReceiveLine(piece, static_cast<int>(std::max<size_t>(room, 1) + 1), 0);
      if (n < 1) return Line::kEnded;
      line.append(piece, static_cast<size_t>(n));
      if (line.back() != '\n') continue;
      line.pop_back();
      if (!line.empty() && line.back() == '\r') line.pop_back();
      return Line::kComplete;
    }
    return Line::kTooLong;
  }
  size_t Read(char* buffer, size_t length) override {
    if (!Ready()) return 0;
    int n = client_.Receive(buffer, static_cast<int>(std::min<size_t>(length, 1 << 20)), 0);
    return static_cast<size_t>(std::max(n, 0));
  }

 private:
  // Whether bytes (or the end of the stream) are there within the reply
  // time-out, the abort polled between slices.
  bool Ready() {
    if (client_.ReadAheadBytes() > 0) return true;
    for (int waited = 0; !client_.IsAborted(); waited += 200) {
      if (client_.WaitForReceive(0, 200000) == 0) return true;
      if (waited + 200 >= client_.GetReplyTimeOut() * 1000) break;
    }
    return false;
  }

  ImapClient& client_;
};

ImapClient::ImapClient() : CommandClient(143, 10) {}

ImapClient::~ImapClient() = default;

int ImapClient::SocketOnConnected(int socket, const char* host) {
  host_ = host != nullptr ? host : "";
  // On any other port TLS comes with STARTTLS, after the greeting.
  if (GetPort() == implicitTlsPort_) return CSecureSocketClient::SocketOnConnected(socket, host);
  return kNetOk;
}

bool ImapClient::HasCapability(std::string_view name) const {
  return std::any_of(capabilities_.begin(), capabilities_.end(),
                     [name](const std::string& c) { return SameText(c, name); });
}

std::string ImapClient::NextTag() {
  return "A" + std::to_string(++tagNumber_);
}

int ImapClient::Broken(int code) {
  CloseConnection();
  return OnError(code);
}

void ImapClient::TakeCapabilities(const std::vector<ImapItem>& items, size_t from) {
  capabilities_.clear();
  capabilitiesKnown_ = true;
  for (size_t i = from; i < items.size(); ++i) {
    if (items[i].kind == Kind::kAtom) capabilities_.push_back(items[i].text);
  }
}

int ImapClient::Read(ImapResponse& response, const ImapLiteralTap& tap) {
  if (IsAborted()) return Broken(kNetAborted);
  SocketSource source(*this);
  switch (ReadImapResponse(source, response, tap)) {
    case ImapRead::kOk:
      break;
    case ImapRead::kEnded:
      return Broken(IsAborted() ? kNetAborted
                    : bye_      ? kNetConnectTerminated
                                : kNetNoServerResponse);
    case ImapRead::kSinkFailed:
      return Broken(kNetDataSourceWriteFailed);
    default:
      return Broken(kNetInvalidResponse);
  }
  if (!response.code.empty() && response.code[0].IsAtom("CAPABILITY")) {
    TakeCapabilities(response.code, 1);
  }
  if (response.type != Type::kUntagged) return kNetOk;
  uint64_t number = 0;
  if (response.status == "BYE") {
    bye_ = true;
  } else if (response.status == "OK" && response.code.size() >= 2 &&
             response.code[0].IsAtom("UIDVALIDITY") && response.code[1].kind == Kind::kNumber) {
    uidValidity_ = static_cast<uint32_t>(std::min<uint64_t>(response.code[1].number, UINT32_MAX));
  } else if (!response.items.empty() && response.items[0].IsAtom("CAPABILITY")) {
    TakeCapabilities(response.items, 1);
  } else if (response.NumberBefore("EXISTS", number)) {
    exists_ = static_cast<uint32_t>(std::min<uint64_t>(number, limits::kMaxMessages));
    changed_ = true;
  } else if (response.NumberBefore("EXPUNGE", number)) {
    exists_ -= exists_ > 0 ? 1 : 0;
    changed_ = true;
  } else if (response.NumberBefore("RECENT", number)) {
    changed_ = changed_ || number > 0;
  }
  return kNetOk;
}

int ImapClient::Finish(const std::string& tag, int refused,
                       const std::function<void(const ImapResponse&)>& each,
                       const ImapLiteralTap& tap) {
  ImapResponse response;
  // A server that never gives the tagged reply gets no more of our time
  // than a whole mailbox's worth of answers.
  for (int untagged = 0; untagged <= limits::kMaxImapUntagged; ++untagged) {
    if (int result = Read(response, tap); result != kNetOk) return result;
    if (response.type == Type::kTagged) {
      // Another command's reply: the session is out of step.
      if (response.tag != tag) return Broken(kNetInvalidResponse);
      return OnError(response.status == "OK" ? kNetOk : refused);
    }
    if (response.type == Type::kUntagged && each) each(response);
  }
  return Broken(kNetInvalidResponse);
}

int ImapClient::Run(const std::string& command, int refused,
                    const std::function<void(const ImapResponse&)>& each,
                    const ImapLiteralTap& tap) {
  if (!IsConnected()) return OnError(kNetNoConnection);
  std::string tag = NextTag();
  if (!SendCommand(tag + " " + command)) return Broken(kNetSendFailed);
  return Finish(tag, refused, each, tap);
}

bool ImapClient::NeedsLiteral(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e;
  });
}

std::string ImapClient::Quote(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

std::string ImapClient::UidSet(std::vector<uint32_t> uids) {
  std::sort(uids.begin(), uids.end());
  uids.erase(std::unique(uids.begin(), uids.end()), uids.end());
  std::string set;
  for (size_t i = 0; i < uids.size();) {
    size_t j = i;
    while (j + 1 < uids.size() && uids[j + 1] == uids[j] + 1) ++j;
    if (!set.empty()) set += ',';
    set += std::to_string(uids[i]);
    if (j > i) set += ':' + std::to_string(uids[j]);
    i = j + 1;
  }
  return set;
}

int ImapClient::StartTls() {
  std::string tag = NextTag();
  if (!SendCommand(tag + " STARTTLS")) return kNetSendFailed;
  int result = Finish(tag, kNetImapNoStartTls);
  if (result != kNetOk) return result;
  // Bytes that came in the clear after the go-ahead fail the handshake.
  result = CSecureSocketClient::SocketOnConnected(Socket(), host_.c_str());
  if (result != kNetOk) return result;
  // What the server said in the clear may have been forged on the way: only
  // the capabilities it gives inside TLS count.
  capabilities_.clear();
  return Run("CAPABILITY", kNetInvalidResponse);
}

int ImapClient::AwaitGoAhead(const std::string& tag, int refused) {
  ImapResponse response;
  for (int untagged = 0; untagged <= limits::kMaxImapUntagged; ++untagged) {
    if (int result = Read(response); result != kNetOk) return result;
    if (response.type == Type::kContinuation) return kNetOk;
    if (response.type == Type::kTagged) {
      return response.tag == tag ? OnError(refused) : Broken(kNetInvalidResponse);
    }
  }
  return Broken(kNetInvalidResponse);
}

int ImapClient::Login(const char* user, const char* password) {
  const bool literalPlus = HasCapability("LITERAL+");
  // The command in pieces: each but the last ends in a literal's size, and
  // the next begins with its bytes.
  std::vector<std::string> pieces{NextTag() + " LOGIN"};
  const std::string tag = pieces[0].substr(0, pieces[0].find(' '));
  for (std::string_view text : {std::string_view(user), std::string_view(password)}) {
    if (!NeedsLiteral(text)) {
      pieces.back() += " " + Quote(text);
      continue;
    }
    pieces.back() += " {" + std::to_string(text.size()) + (literalPlus ? "+}" : "}");
    pieces.emplace_back(text);
  }
  int result = kNetOk;
  if (literalPlus) {
    result = SendCommands(pieces) ? kNetOk : Broken(kNetSendFailed);
  } else {
    // Each literal waits for the server's go-ahead, or its refusal.
    for (size_t i = 0; result == kNetOk && i < pieces.size(); ++i) {
      if (!SendCommand(pieces[i])) result = Broken(kNetSendFailed);
      if (result == kNetOk && i + 1 < pieces.size()) result = AwaitGoAhead(tag, kNetLoginFailed);
    }
  }
  for (std::string& piece : pieces) Forget(piece);
  if (result != kNetOk) return result;
  result = Finish(tag, kNetLoginFailed);
  if (result != kNetOk) return result;
  // The capabilities after login are the ones that count (IDLE among them).
  if (!capabilitiesKnown_) result = Run("CAPABILITY", kNetInvalidResponse);
  return result;
}

int ImapClient::Open(const char* host, const char* user, const char* password) {
  CloseConnection();
  tagNumber_ = 0;
  capabilities_.clear();
  capabilitiesKnown_ = changed_ = bye_ = false;
  uidValidity_ = exists_ = 0;
  if (user == nullptr || password == nullptr || !IsSafeCommandArgument(user) ||
      !IsSafeCommandArgument(password)) {
    return OnError(kNetInvalidParameter);
  }
  int result = ConnectToServer(host);
  if (result != kNetOk) return OnError(result);
  ImapResponse greeting;
  if ((result = Read(greeting)) != kNetOk) return result;
  if (greeting.type != Type::kUntagged ||
      (greeting.status != "OK" && greeting.status != "PREAUTH")) {
    return Broken(kNetConnectFailed);
  }
  const bool preauth = greeting.status == "PREAUTH";
  if (GetSecurityEnabled() && !IsSessionSecure()) {
    // A session already logged in cannot be upgraded: in the clear, that is
    // what a forged greeting would say to keep it in the clear.
    if (preauth) return Broken(kNetImapNoStartTls);
    if (!capabilitiesKnown_ && (result = Run("CAPABILITY", kNetInvalidResponse)) != kNetOk) {
      return result;
    }
    if (HasCapability("STARTTLS") && (result = StartTls()) != kNetOk) return Broken(result);
  }
  capabilitiesKnown_ = false;
  if (!preauth && (result = Login(user, password)) != kNetOk) return Broken(result);
  if (preauth && (result = Run("CAPABILITY", kNetInvalidResponse)) != kNetOk) return result;
  uidValidity_ = exists_ = 0;
  result = Run("EXAMINE INBOX", kNetInvalidResponse);
  if (result == kNetOk && uidValidity_ == 0) result = Broken(kNetInvalidResponse);
  return OnError(result);
}

int ImapClient::FetchUids(std::vector<uint32_t>& uids) {
  uids.clear();
  if (!IsConnected()) return OnError(kNetNoConnection);
  // "1:*" names the last message even in an empty mailbox, where some
  // servers refuse it.
  if (exists_ == 0) return OnError(kNetOk);
  int result = Run("UID FETCH 1:* (UID)", kNetUidlFailed, [&uids](const ImapResponse& response) {
    const std::vector<ImapItem>* list = FetchList(response);
    uint32_t uid = list != nullptr ? UidOf(*list) : 0;
    if (uid != 0 && uids.size() < static_cast<size_t>(limits::kMaxMessages)) uids.push_back(uid);
  });
  std::sort(uids.begin(), uids.end());
  uids.erase(std::unique(uids.begin(), uids.end()), uids.end());
  if (result != kNetOk) uids.clear();
  return result;
}

int ImapClient::FetchHeaders(const std::vector<uint32_t>& uids,
                             const std::vector<std::string>& fields,
                             const std::function<void(uint32_t uid, std::string header)>& each) {
  if (!std::all_of(fields.begin(), fields.end(), IsFieldName)) {
    return OnError(kNetInvalidParameter);
  }
  if (!IsConnected()) return OnError(kNetNoConnection);
  std::vector<uint32_t> wanted = uids;
  std::sort(wanted.begin(), wanted.end());
  wanted.erase(std::unique(wanted.begin(), wanted.end()), wanted.end());
  wanted.erase(std::remove(wanted.begin(), wanted.end(), 0u), wanted.end());
  if (wanted.empty()) return OnError(kNetOk);
  std::string section = "HEADER";
  if (!fields.empty()) {
    section += ".FIELDS (";
    for (const std::string& field : fields)
      section += field + (&field == &fields.back() ? ")" : " ");
  }
  std::vector<bool> handed(wanted.size());
  return Run("UID FETCH " + UidSet(wanted) + " (UID BODY.PEEK[" + section + "])", kNetTopFailed,
             [&](const ImapResponse& response) {
               const std::vector<ImapItem>* list = FetchList(response);
               if (list == nullptr) return;
               // Only a message asked for, and each once, whatever the server sends.
               const uint32_t uid = UidOf(*list);
               auto at = std::lower_bound(wanted.begin(), wanted.end(), uid);
               const size_t index = static_cast<size_t>(at - wanted.begin());
               if (at == wanted.end() || *at != uid || handed[index]) return;
               for (size_t i = 0; i + 1 < list->size(); i += 2) {
                 const ImapItem& name = (*list)[i];
                 const ImapItem& value = (*list)[i + 1];
                 if (name.kind != Kind::kAtom || !name.text.starts_with("BODY[")) continue;
                 if (value.kind != Kind::kLiteral && value.kind != Kind::kQuoted &&
                     value.kind != Kind::kNil) {
                   continue;
                 }
                 handed[index] = true;
                 each(uid, value.text);
                 return;
               }
             });
}

int ImapClient::FetchMessage(uint32_t uid, DataSource& dest, int64_t maxBytes) {
  if (!IsConnected()) return OnError(kNetNoConnection);
  if (dest.Open(DataSource::kOpenWrite) != 0) return OnError(kNetFileOpenFailed);
  BodySink sink(dest);
  bool found = false, handed = false;
  ImapLiteralTap tap = [&](const std::vector<ImapItem>& list, uint64_t size) -> ImapLiteralSink* {
    // One body only: a reply of many literals, each within the bound, must
    // not add up past it.
    if (found || handed || list.size() < 2 || !list[list.size() - 2].IsAtom("BODY[]")) {
      return nullptr;
    }
    // Another message's body (its UID said first) is no business of ours.
    if (uint32_t named = UidOf(list); named != 0 && named != uid) return nullptr;
    sink.tooLong = maxBytes > 0 && size > static_cast<uint64_t>(maxBytes);
    handed = true;
    return &sink;
  };
  int result = Run(
      "UID FETCH " + std::to_string(uid) + " BODY.PEEK[]", kNetRetrFailed,
      [&](const ImapResponse& response) {
        const std::vector<ImapItem>* list = FetchList(response);
        const ImapItem* body = list ? ValueOf(*list, "BODY[]") : nullptr;
        if (found || body == nullptr) return;
        if (UidOf(*list) != uid) {
          // A body streamed before its UID said it was another's.
          if (sink.written && dest.Close() == 0) dest.Open(DataSource::kOpenWrite);
          sink.written = handed = false;
          return;
        }
        if (body->kind == Kind::kQuoted) sink.Write(body->text.data(), body->text.size());
        found = body->kind != Kind::kNil && !sink.writeFailed;
      },
      tap);
  dest.Close();
  if (sink.tooLong) return OnError(kNetBodyTooLong);
  if (result == kNetOk && !found) result = kNetNoSuchMessage;
  return OnError(result);
}

int ImapClient::Idle(int seconds) {
  if (!IsConnected()) return OnError(kNetNoConnection);
  if (!HasCapability("IDLE")) return OnError(kNetNotSupported);
  const std::string tag = NextTag();
  if (!SendCommand(tag + " IDLE")) return Broken(kNetSendFailed);
  changed_ = false;
  if (int result = AwaitGoAhead(tag, kNetNotSupported); result != kNetOk) return result;
  ImapResponse response;
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::seconds(std::max(seconds, 0));
  for (int untagged = 0; !changed_;) {
    if (IsAborted()) return Broken(kNetAborted);
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now());
    if (left.count() <= 0) break;
    // Short waits, so that an abort is seen soon.
    int wait = static_cast<int>(std::min<int64_t>(left.count(), 200000));
    if (WaitForReceive(0, wait) != 0) continue;
    if (int result = Read(response); result != kNetOk) return result;
    if (response.type == Type::kTagged) {
      // The server ended the IDLE itself.
      if (response.tag != tag) return Broken(kNetInvalidResponse);
      return OnError(response.status == "OK" ? (changed_ ? 1 : 0) : kNetNotSupported);
    }
    if (++untagged > limits::kMaxImapUntagged) return Broken(kNetInvalidResponse);
  }
  if (!SendCommand("DONE")) return Broken(kNetSendFailed);
  int result = Finish(tag, kNetNotSupported);
  return result != kNetOk ? result : OnError(changed_ ? 1 : 0);
}

int ImapClient::Noop() {
  changed_ = false;
  int result = Run("NOOP", kNetNoopFailed);
  return result != kNetOk ? result : OnError(changed_ ? 1 : 0);
}

int ImapClient::Logout() {
  int result = kNetOk;
  if (IsConnected()) {
    result = Run("LOGOUT", kNetOk);
    // The BYE before the close is LOGOUT's answer too.
    if (bye_ && result == kNetConnectTerminated) result = kNetOk;
  }
  CloseConnection();
  return OnError(result);
}

}  // namespace corvane
