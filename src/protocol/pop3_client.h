#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "protocol/command_client.h"
#include "stream/data_source.h"

namespace corvane {

// Reads a POP3 mailbox: USER/PASS login, STAT, LIST n, UIDL, RETR into a data
// source or line by line, TOP, DELE, RSET and QUIT, over plain TCP, implicit
// TLS (port 995) or STLS. Every operation returns a result code (0 success).
class Pop3Client : public CommandClient {
 public:
  static constexpr int kMaxUidLength = 69;
  static constexpr int kResponseSize = 1024;

  Pop3Client();
  ~Pop3Client() override;

  virtual int POP3Connect(const char* host, const char* user, const char* password);
  virtual int POP3Close();
  // The message count, at most limits::kMaxMessages.
  virtual int GetNumMsgs(int* count);
  virtual int GetMsgSize(int number, long* size);
  virtual int RetrieveToDataSource(int number, DataSource& dest);
  virtual int RetrieveToFile(int number, const char* fileName);
  virtual int OpenMsg(int number);
  virtual int ReadMsgLine(char* buffer, int max);
  virtual int CloseMsg();
  // number < 1: the whole listing; else one message's id.
  virtual int GetUIDL(int number);
  // The id stored for `number`, or null when the number is not in the list.
  virtual const char* GetUID(int number) const;
  virtual int OpenTop(int number, int lines);
  // One line (or piece of an overlong one) of an open TOP listing: its
  // length, 0 at the end of the listing, -1 when nothing is open or the
  // rest did not arrive.
  virtual int ReadTopLine(char* buffer, int max);
  virtual int CloseTop();
  // Asks CAPA whether the server takes pipelined commands (RFC 2449
  // PIPELINING). False when it does not, or does not know CAPA; a CAPA
  // reply that does not end within its bounds also closes the connection,
  // whose replies could no longer be told apart.
  bool AskPipelining();
  // For a server that takes them: the TOP commands of `numbers` go out ahead
  // of their replies, at most kPipelineWindow unanswered at a time, and
  // OpenTop of those numbers, in this order, reads its reply instead of
  // sending. The commands and their order on the wire stay the same.
  void SendTopsAhead(const std::vector<int>& numbers, int lines);
  static constexpr size_t kPipelineWindow = 64;
  virtual int DeleteMsg(int number);
  virtual int ResetDelete();
  // A RETR that goes past this many bytes stops with 79. 0 or less: no limit.
  void SetMaxRetrieveBytes(int64_t bytes) { maxRetrieveBytes_ = bytes; }
  // Called with the running byte count of a RETR; false stops it (98).
  virtual bool RetrieveStatus(long bytesSoFar);

  // STLS on a plain port, the layer's own handshake on 995.
  int SocketOnConnected(int socket, const char* host) override;

  // Stores `seconds` when above 0 (returns 0); otherwise returns 1.
  int SetPOP3TimeOut(int seconds) { return SetReplyTimeOut(seconds); }
  int GetPOP3TimeOut() const { return GetReplyTimeOut(); }
  // The last reply line, "\r\n" included.
  const char* LastResponse() const { return LastReplyLine().c_str(); }

  struct UidEntry {
    int number;
    std::string uid;
  };
  const std::vector<UidEntry>& UidList() const { return uids_; }

 private:
  bool ReadReply(int room = kResponseSize);
  bool ReplyPositive() const { return LastReplyLine().starts_with('+'); }
  // Sends a command and reads its reply: 6 not connected, 12 no reply,
  // `negativeCode` for a negative reply, else 0.
  int Command(const char* text, int negativeCode);
  // One piece of a multi-line reply (a line, or part of an overlong one)
  // into `buffer`, with `unstuff` a stuffed dot at a line's start removed:
  // its length; 0 with `ended` set at the terminating "." line; below 1 when
  // nothing came.
  int ReadListingPiece(char* buffer, int max, int timeoutSeconds, bool& ended, bool unstuff = true);
  // Line-by-line reading of a RETR or TOP stream, on that stream's flags.
  int ReadOpenLine(bool open, bool& done, char* buffer, int max);
  int CloseOpen(bool& open, bool& done);
  void AddUid(int number, std::string uid);
  // Whether `text` is the next command sent ahead (then taken, and more of
  // the queue sent while the window is half empty); a different command
  // while some are ahead puts the session out of step: it is closed.
  bool TakeAhead(const std::string& text);
  void DropAhead();

  bool messageOpen_ = false, messageDone_ = false;
  bool topOpen_ = false, topDone_ = false;
  std::vector<UidEntry> uids_;
  std::unordered_map<int, size_t> uidIndex_;  // number -> its entry in uids_
  int statCount_ = -1;
  int64_t maxRetrieveBytes_ = 0;    // the last STAT count, capped
  bool greetingRead_ = false;       // by the STLS upgrade
  bool lineStart_ = true;           // the next piece of a listing begins a line
  std::deque<std::string> ahead_;   // sent, their replies not yet read
  std::deque<std::string> queued_;  // to be sent ahead as the window allows
};

}  // namespace corvane
