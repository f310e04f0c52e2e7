#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "protocol/net_codes.h"
#include "protocol/secure_socket_client.h"
#include "stream/data_source.h"
#include "stream/receive_writer.h"

namespace corvane {

// The blocking TCP client under the POP3, SMTP and FTP clients: one connected
// stream socket (plus, for FTP's active data connection, one listening
// socket), name lookup, connect with a time-out, sends, line and block
// receives with per-call time-outs, streaming from a data source and into a
// writer, and hooks a derived class uses to follow or cancel a transfer.
// Every byte goes through the TLS layer's socket operations.
//
// Received bytes pass through a read-ahead buffer, so that reading a long
// reply line by line costs one system call per buffer, not two per line.
// Receive, ReceiveBlock and ReceiveLine drain it first, and IsDataWaiting,
// WaitForReceive and IsConnected count what it holds.
//
// Time-outs given as arguments are whole seconds; 0 or below means "do not
// wait first": the socket's own receive or send time-out applies (30 s by
// default). Operations return 0 or a result code (net_codes.h), or a count
// where stated; every result code passes through OnError on its way out.
// One thread at a time.
class CNetClient : public CSecureSocketClient {
 public:
  static constexpr int kMaxAddressLength = 30;
  static constexpr int kDefaultTimeOutMs = 30000;
  static constexpr int kReadAheadSize = 16 * 1024;
  static constexpr int kSendPieceSize = 255;
  static constexpr int kReceivePieceSize = 256;

  CNetClient();
  // Closes both sockets.
  ~CNetClient() override;

  // Connects to `address` (a dotted IPv4 address, or a host name of which
  // everything up to the last at-sign is ignored) on `port`. A time-out of 0
  // or more bounds the TCP connect (5 when it strikes); below 0 the connect
  // blocks. Then SocketOnConnected runs (the TLS handshake when security is
  // on, bounded by the same time-out when above 0) and its result is
  // returned. Codes: 16 already connected, 100 bad address, 17, 19 refused or
  // failed, 5 timed out, 120..143. After a failure the client can connect
  // again.
  virtual int Connect(unsigned port, const char* address, int timeoutSeconds, int family = 2,
                      int type = 1);
  // 0, or 1 on failure.
  virtual int CreateSocket(int& handle, int family, int type, int protocol);
  // Shuts down and closes the connected and the listening socket; 1 when a
  // shutdown or close failed, else 0.
  virtual int CloseConnection();

  // Listens on `port` (0: any free port, see GetListenPort) at `address`
  // (null or empty: every local address). 16 already listening, 17, 18 bind,
  // 23 listen; after a failure nothing is left listening.
  virtual int WaitForConnect(unsigned port, int backlog = 1, int family = 2,
                             const char* address = nullptr);
  // 0 when a connection is waiting to be accepted within `seconds`, else 1.
  virtual int WaitForAccept(int seconds);
  // Closes any connected socket, accepts the waiting connection as the
  // connected socket and runs SocketOnConnected. 1 on failure. With
  // `onlyFrom`, a connection from any other address is closed at once,
  // unread, and gives 10.
  virtual int AcceptConnection(const char* onlyFrom = nullptr);

  // Sends an open data source in 255-byte pieces; neither opens nor closes
  // it. 15, 22, 98.
  virtual int SendFromReader(DataSource& reader);
  // Opens `source` for reading, sends it in pieces of `pieceSize` bytes (255
  // unless a bulk transfer asks for more) and closes it; the status hook sees
  // each piece. 15 not connected, 81 can't open, 22 send failed, 98 aborted.
  virtual int SendFromDataSource(DataSource& source, int pieceSize = kSendPieceSize);
  // One send of `length` bytes (below 1: `data` is NUL-terminated); the
  // count sent, 0 on error.
  virtual int Send(const char* data, int length = -1);
  // `data` in pieces of `lineLength` bytes, each followed by "\r\n"; the
  // count of data bytes sent.
  virtual int SendAsLines(const char* data, int length, int lineLength);
  // 0 when the connected socket can take data within the wait, else 1.
  virtual int WaitForSend(int seconds, int microseconds);

  // Receives into `dest` until the peer closes or the limit (the writer's
  // room, or `maxBytes` when above 0 and smaller) is reached. 15, 20 wait
  // failed, 21 receive error, 83 short write, 98 aborted.
  virtual int ReceiveToWriter(ReceiveWriter& dest, int timeoutSeconds, int64_t maxBytes = 0);
  // One receive of at most `maxLength` bytes: the count, 0 when nothing
  // came within the time-out or the peer closed, -1 on error.
  virtual int Receive(char* buffer, int maxLength, int timeoutSeconds);
  // Receives until `length` bytes have come, a wait fails, the peer closes
  // or a receive fails; the count received.
  virtual int ReceiveBlock(char* buffer, int length, int timeoutSeconds);
  // One line into `buffer`, its "\r\n" kept and a NUL behind it; a line
  // longer than maxLength - 1 bytes comes in pieces, all but the last without
  // a line feed. The count, 0 when nothing arrived (or maxLength is below 2).
  virtual int ReceiveLine(char* buffer, int maxLength, int timeoutSeconds);
  // 0 when data (or the end of the stream) is ready to be read within the
  // wait, else 1.
  virtual int WaitForReceive(int seconds, int microseconds);

  // Sees every result code just before it is returned; returns it.
  virtual int OnError(int code);
  // Progress of ReceiveToWriter and SendFromDataSource; false cancels (98).
  virtual bool ReceiveFileStatus(long bytesSoFar);
  virtual bool SendFileStatus(long bytesSoFar);
  // True cancels the transfer in progress.
  virtual bool IsAborted();

  // True when at least one byte can be read at once.
  bool IsDataWaiting();
  // Whether the peer is still there: false once it has closed or the
  // connection has failed.
  bool IsConnected();
  // The connected socket's send-buffer size, or -1.
  int GetMaxSend();
  // Sets the socket option on the connected socket and stores the value;
  // without a connection only stores it for the next one. 0, or -1 when the
  // option could not be set.
  int SetReceiveTimeOut(int ms);
  int SetSendTimeOut(int ms);
  int GetReceiveTimeOut() const { return receiveTimeOutMs_; }
  int GetSendTimeOut() const { return sendTimeOutMs_; }
  // 0 blocking, 1 non-blocking. 0 on success, 1 on failure.
  int SetBlockingMode(int flag);
  int GetBlockingMode() const { return blockingMode_; }

  // True for a dotted IPv4 address.
  static bool IsIPAddress(const char* text);
  // Looks up the host named after the last at-sign of `name` and writes its
  // first IPv4 address, dotted, into `buffer` of `size` bytes (NUL included).
  // 7 no such host, 35 the text does not fit.
  static int GetAddressFromName(const char* name, char* buffer, int size);

  unsigned GetRemotePort() const { return remotePort_; }
  unsigned GetLocalPort() const { return localPort_; }
  unsigned GetListenPort() const { return listenPort_; }
  // The peer's dotted address; empty when closed.
  const char* GetRemoteAddress() const { return remoteAddress_.c_str(); }
  // The dotted local address of the connected socket; empty when closed.
  std::string GetLocalAddress() const;

 protected:
  int Socket() const { return socket_; }
  int ListenSocket() const { return listenSocket_; }
  int ReadAheadBytes() const override { return static_cast<int>(readEnd_ - readStart_); }

 private:
  // Reads once from the layer into the empty read-ahead buffer; what the
  // layer returned.
  int FillReadAhead();
  // Moves up to `length` buffered bytes to `buffer`; the count.
  int TakeReadAhead(char* buffer, int length);
  void ClearReadAhead() { readStart_ = readEnd_ = 0; }
  void ApplyTimeOuts(int handle);
  int CloseConnected();
  int SendPieces(DataSource& source, int pieceSize);

  uint16_t remotePort_ = 0;
  uint16_t localPort_ = 0;
  uint16_t listenPort_ = 0;
  std::string remoteAddress_;
  int family_ = 2;
  int type_ = 1;
  int protocol_ = 0;
  int socket_ = -1;
  int listenSocket_ = -1;
  int blockingMode_ = 0;
  int sendTimeOutMs_ = kDefaultTimeOutMs;
  int receiveTimeOutMs_ = kDefaultTimeOutMs;

  std::vector<char> readAhead_;
  size_t readStart_ = 0;
  size_t readEnd_ = 0;
};

}  // namespace corvane
