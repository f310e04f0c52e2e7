#include "protocol/net_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "protocol/operation_deadline.h"
#include "protocol/socket_wait.h"

namespace corvane {
namespace {

struct AddrInfoFree {
  void operator()(addrinfo* info) const { freeaddrinfo(info); }
};

std::string Dotted(const in_addr& address) {
  char text[INET_ADDRSTRLEN] = {};
  return inet_ntop(AF_INET, &address, text, sizeof text) != nullptr ? text : "";
}

// The local end of `socket`, or a zeroed record when it has none.
sockaddr_in LocalName(int socket) {
  sockaddr_in local{};
  socklen_t size = sizeof local;
  if (socket < 0 || getsockname(socket, reinterpret_cast<sockaddr*>(&local), &size) != 0) {
    local = sockaddr_in{};
  }
  return local;
}

int SetTimeOutOption(int socket, int option, int ms) {
  timeval limit{};
  if (ms > 0) {
    limit.tv_sec = ms / 1000;
    limit.tv_usec = (ms % 1000) * 1000;
  }
  return setsockopt(socket, SOL_SOCKET, option, &limit, sizeof limit) == 0 ? 0 : -1;
}

// The host part of a connect address: what follows the last at-sign, so a
// mailbox name like "joe@mail.example" names its host.
const char* HostPart(const char* name) {
  const char* at = std::strrchr(name, '@');
  return at != nullptr ? at + 1 : name;
}

int64_t WaitMs(int seconds, int microseconds) {
  return std::max(seconds, 0) * int64_t{1000} + (std::max(microseconds, 0) + 999) / 1000;
}

}  // namespace

CNetClient::CNetClient() : readAhead_(kReadAheadSize) {}

CNetClient::~CNetClient() {
  CloseConnection();
}

int CNetClient::Connect(unsigned port, const char* address, int timeoutSeconds, int family,
                        int type) {
  if (socket_ != -1) return OnError(kNetSocketInUse);
  if (address == nullptr) return OnError(kNetBadAddress);
  char dotted[kMaxAddressLength + 1] = {};
  if (IsIPAddress(address)) {
    std::strncpy(dotted, address, kMaxAddressLength);
  } else if (GetAddressFromName(address, dotted, sizeof dotted) != kNetOk) {
    return OnError(kNetBadAddress);
  }
  family_ = family;
  type_ = type;
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, dotted, &peer.sin_addr);

  int handle = -1;
  if (CreateSocket(handle, family, type, protocol_) != 0) return OnError(kNetSocketCreateFailed);
  OperationDeadline::Watch(handle);
  socket_ = handle;
  ClearReadAhead();
  auto fail = [this](int code) {
    OperationDeadline::Unwatch(socket_);
    ::close(socket_);
    socket_ = -1;
    blockingMode_ = 0;
    return OnError(code);
  };

  if (timeoutSeconds >= 0 && SetBlockingMode(1) != 0) return fail(kNetSocketConnectFailed);
  if (::connect(socket_, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
    bool pending = errno == EINPROGRESS || errno == EAGAIN || errno == EINTR;
    if (!pending || timeoutSeconds < 0) return fail(kNetSocketConnectFailed);
    if (WaitForSend(timeoutSeconds, 0) != 0) return fail(kNetConnectTimeout);
    // Writable also means the attempt has ended in failure (refused,
    // unreachable); that is a failed connect, not a time-out.
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(socket_, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0) {
      return fail(kNetSocketConnectFailed);
    }
  }
  if (timeoutSeconds >= 0 && SetBlockingMode(0) != 0) return fail(kNetSocketConnectFailed);

  ApplyTimeOuts(socket_);
  // Commands and handshake messages are small writes, often two in a row:
  // held back to be merged, each such pair would wait for a delayed
  // acknowledgement (40 ms on Linux).
  const int noDelay = 1;
  setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
  remotePort_ = static_cast<uint16_t>(port);
  localPort_ = ntohs(LocalName(socket_).sin_port);
  remoteAddress_ = dotted;
  SetHandshakeTimeOut(timeoutSeconds > 0 ? timeoutSeconds * 1000 : receiveTimeOutMs_);
  int code = SocketOnConnected(socket_, HostPart(address));
  if (code != kNetOk) {
    OperationDeadline::Unwatch(socket_);
    SocketClose(socket_);
    socket_ = -1;
    ClearReadAhead();
    remotePort_ = localPort_ = 0;
    remoteAddress_.clear();
  }
  return OnError(code);
}

int CNetClient::CreateSocket(int& handle, int family, int type, int protocol) {
  // Not inherited by the new-mail program the gateway starts.
  handle = ::socket(family, type | SOCK_CLOEXEC, protocol);
  return handle < 0 ? 1 : 0;
}

int CNetClient::CloseConnected() {
  int result = 0;
  if (socket_ != -1) {
    // A peer that has already reset the connection (a server that closes
    // right after answering QUIT, before our TLS close_notify arrives) leaves
    // nothing to shut down: that is a clean end, not a failure.
    if (type_ == SOCK_STREAM && SocketShutDown(socket_, SHUT_RDWR) != 0 && errno != ENOTCONN) {
      result = 1;
    }
    OperationDeadline::Unwatch(socket_);
    if (SocketClose(socket_) != 0) result = 1;
    socket_ = -1;
  }
  ClearReadAhead();
  blockingMode_ = 0;
  remotePort_ = localPort_ = 0;
  remoteAddress_.clear();
  return result;
}

int CNetClient::CloseConnection() {
  int result = CloseConnected();
  if (listenSocket_ != -1) {
    // A listener has no connection to shut down; only real failures count.
    if (::shutdown(listenSocket_, SHUT_RDWR) != 0 && errno != ENOTCONN) result = 1;
    OperationDeadline::Unwatch(listenSocket_);
    if (::close(listenSocket_) != 0) result = 1;
    listenSocket_ = -1;
  }
  listenPort_ = 0;
  return OnError(result);
}

int CNetClient::WaitForConnect(unsigned port, int backlog, int family, const char* address) {
  if (listenSocket_ != -1) return OnError(kNetSocketInUse);
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(static_cast<uint16_t>(port));
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  bool addressOk = true;
  if (address != nullptr && *address != '\0') {
    char dotted[kMaxAddressLength + 1] = {};
    if (IsIPAddress(address)) {
      std::strncpy(dotted, address, kMaxAddressLength);
    } else {
      addressOk = GetAddressFromName(address, dotted, sizeof dotted) == kNetOk;
    }
    addressOk = addressOk && inet_pton(AF_INET, dotted, &local.sin_addr) == 1;
  }

  int handle = -1;
  if (CreateSocket(handle, family, type_, protocol_) != 0) return OnError(kNetSocketCreateFailed);
  OperationDeadline::Watch(handle);
  int on = 1;
  setsockopt(handle, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (!addressOk || ::bind(handle, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    OperationDeadline::Unwatch(handle);
    ::close(handle);
    return OnError(kNetBindFailed);
  }
  if (::listen(handle, backlog) != 0) {
    OperationDeadline::Unwatch(handle);
    ::close(handle);
    return OnError(kNetListenFailed);
  }
  ApplyTimeOuts(handle);
  listenSocket_ = handle;
  listenPort_ = ntohs(LocalName(handle).sin_port);
  return OnError(kNetOk);
}

int CNetClient::WaitForAccept(int seconds) {
  return PollSocket(listenSocket_, POLLIN, WaitMs(seconds, 0)) > 0 ? 0 : 1;
}

int CNetClient::AcceptConnection(const char* onlyFrom) {
  if (socket_ != -1 && CloseConnected() != 0) return OnError(kNetFailed);
  if (listenSocket_ == -1) return OnError(kNetFailed);
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  int handle;
  do {
    handle = accept4(listenSocket_, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC);
  } while (handle < 0 && errno == EINTR);
  if (handle < 0) return OnError(kNetFailed);
  if (onlyFrom != nullptr && Dotted(peer.sin_addr) != onlyFrom) {
    ::close(handle);
    return OnError(kNetRequestDenied);
  }

  socket_ = handle;
  OperationDeadline::Watch(socket_);
  ClearReadAhead();
  ApplyTimeOuts(socket_);
  remoteAddress_ = Dotted(peer.sin_addr);
  remotePort_ = ntohs(peer.sin_port);
  localPort_ = ntohs(LocalName(socket_).sin_port);
  SetHandshakeTimeOut(receiveTimeOutMs_);
  int code = SocketOnConnected(socket_, remoteAddress_.c_str());
  if (code != kNetOk) {
    OperationDeadline::Unwatch(socket_);
    SocketClose(socket_);
    socket_ = -1;
    remotePort_ = localPort_ = 0;
    remoteAddress_.clear();
  }
  return OnError(code);
}

void CNetClient::ApplyTimeOuts(int handle) {
  SetTimeOutOption(handle, SO_RCVTIMEO, receiveTimeOutMs_);
  SetTimeOutOption(handle, SO_SNDTIMEO, sendTimeOutMs_);
}

int CNetClient::SendPieces(DataSource& source, int pieceSize) {
  std::vector<char> buffer(static_cast<size_t>(std::max(pieceSize, 1)) + 1);
  char* piece = buffer.data();
  long total = 0;
  for (;;) {
    int n = source.Read(piece, static_cast<int>(buffer.size()) - 1);
    if (n < 1) return kNetOk;
    // Send takes what the socket takes; the rest of a piece follows so that
    // no byte of the source is skipped.
    for (int done = 0; done < n;) {
      int sent = Send(piece + done, n - done);
      if (sent < 1) return kNetSendFailed;
      done += sent;
    }
    total += n;
    if (!SendFileStatus(total) || IsAborted()) return kNetAborted;
  }
}

int CNetClient::SendFromReader(DataSource& reader) {
  if (socket_ == -1) return OnError(kNetSocketNotOpen);
  return OnError(SendPieces(reader, kSendPieceSize));
}

int CNetClient::SendFromDataSource(DataSource& source, int pieceSize) {
  if (socket_ == -1) return OnError(kNetSocketNotOpen);
  if (source.Open(DataSource::kOpenRead) != 0) return OnError(kNetDataSourceOpenFailed);
  int result = SendPieces(source, pieceSize);
  source.Close();
  return OnError(result);
}

int CNetClient::Send(const char* data, int length) {
  if (data == nullptr || socket_ == -1) return 0;
  if (length < 1) length = static_cast<int>(std::strlen(data));
  int sent = SocketSend(socket_, data, length, 0);
  return sent > 0 ? sent : 0;
}

int CNetClient::SendAsLines(const char* data, int length, int lineLength) {
  if (data == nullptr || lineLength < 1) return 0;
  if (length < 1) length = static_cast<int>(std::strlen(data));
  std::string line;
  int sent = 0;
  while (sent < length && !IsAborted()) {
    int piece = std::min(lineLength, length - sent);
    line.assign(data + sent, static_cast<size_t>(piece));
    line += "\r\n";
    int out = Send(line.data(), static_cast<int>(line.size()));
    sent += std::min(out, piece);
    if (out < static_cast<int>(line.size())) break;
  }
  return sent;
}

int CNetClient::WaitForSend(int seconds, int microseconds) {
  return PollSocket(socket_, POLLOUT, WaitMs(seconds, microseconds)) > 0 ? 0 : 1;
}

int CNetClient::FillReadAhead() {
  readStart_ = readEnd_ = 0;
  int n = SocketRecv(socket_, readAhead_.data(), static_cast<int>(readAhead_.size()), 0);
  if (n > 0) readEnd_ = static_cast<size_t>(n);
  return n;
}

int CNetClient::TakeReadAhead(char* buffer, int length) {
  size_t n = std::min(readEnd_ - readStart_, static_cast<size_t>(std::max(length, 0)));
  std::memcpy(buffer, readAhead_.data() + readStart_, n);
  readStart_ += n;
  if (readStart_ == readEnd_) ClearReadAhead();
  return static_cast<int>(n);
}

int CNetClient::ReceiveToWriter(ReceiveWriter& dest, int timeoutSeconds, int64_t maxBytes) {
  if (socket_ == -1) return OnError(kNetSocketNotOpen);
  int64_t limit = dest.Room();
  if (maxBytes > 0 && maxBytes < limit) limit = maxBytes;
  char piece[kReceivePieceSize];
  int64_t total = 0;
  int result = kNetOk;
  while (total < limit) {
    if (timeoutSeconds > 0 && WaitForReceive(timeoutSeconds, 0) != 0) {
      result = kNetTimeout;
      break;
    }
    int want = static_cast<int>(std::min<int64_t>(kReceivePieceSize, limit - total));
    int n = Receive(piece, want, 0);
    if (n == 0) break;
    if (n < 0) {
      result = kNetReceiveError;
      break;
    }
    if (dest.Write(piece, n) < n) {
      result = kNetDataSourceWriteFailed;
      break;
    }
    total += n;
    if (!ReceiveFileStatus(static_cast<long>(total)) || IsAborted()) {
      result = kNetAborted;
      break;
    }
  }
  return OnError(result);
}

int CNetClient::Receive(char* buffer, int maxLength, int timeoutSeconds) {
  if (buffer == nullptr || maxLength < 1) return 0;
  if (readEnd_ > readStart_) return TakeReadAhead(buffer, maxLength);
  if (timeoutSeconds > 0 && WaitForReceive(timeoutSeconds, 0) != 0) return 0;
  // A large read goes straight to the caller; a small one fills the
  // read-ahead so the next ones cost no system call.
  if (maxLength >= kReadAheadSize) return SocketRecv(socket_, buffer, maxLength, 0);
  int n = FillReadAhead();
  return n > 0 ? TakeReadAhead(buffer, maxLength) : n;
}

int CNetClient::ReceiveBlock(char* buffer, int length, int timeoutSeconds) {
  if (buffer == nullptr) return 0;
  int total = 0;
  while (total < length) {
    if (timeoutSeconds > 0 && WaitForReceive(timeoutSeconds, 0) != 0) break;
    int n = Receive(buffer + total, length - total, 0);
    if (n < 1) break;
    total += n;
  }
  return total;
}

int CNetClient::ReceiveLine(char* buffer, int maxLength, int timeoutSeconds) {
  if (buffer == nullptr || maxLength < 1) return 0;
  buffer[0] = '\0';
  size_t room = static_cast<size_t>(maxLength - 1);
  size_t total = 0;
  while (room > 0) {
    if (IsAborted()) break;
    if (readEnd_ == readStart_) {
      if (timeoutSeconds > 0 && WaitForReceive(timeoutSeconds, 0) != 0) break;
      if (FillReadAhead() < 1) break;
    }
    const char* start = readAhead_.data() + readStart_;
    size_t available = std::min(readEnd_ - readStart_, room);
    const char* lineFeed = static_cast<const char*>(std::memchr(start, '\n', available));
    size_t take = lineFeed != nullptr ? static_cast<size_t>(lineFeed - start) + 1 : available;
    std::memcpy(buffer + total, start, take);
    total += take;
    room -= take;
    buffer[total] = '\0';
    readStart_ += take;
    if (readStart_ == readEnd_) ClearReadAhead();
    if (lineFeed != nullptr) break;
  }
  return static_cast<int>(total);
}

int CNetClient::WaitForReceive(int seconds, int microseconds) {
  if (readEnd_ > readStart_) return 0;
  if (socket_ == -1) return 1;
  return SocketWaitForReceive(socket_, seconds, microseconds);
}

int CNetClient::OnError(int code) {
  return code;
}
bool CNetClient::ReceiveFileStatus(long) {
  return true;
}
bool CNetClient::SendFileStatus(long) {
  return true;
}
bool CNetClient::IsAborted() {
  return OperationDeadline::Expired();
}

bool CNetClient::IsDataWaiting() {
  if (readEnd_ > readStart_) return true;
  return socket_ != -1 && SocketIsDataWaiting(socket_);
}

bool CNetClient::IsConnected() {
  if (socket_ == -1) return false;
  if (readEnd_ > readStart_) return true;  // bytes the peer sent and we hold
  int readable = PollSocket(socket_, POLLIN, 0);
  if (readable < 0) return false;
  char probe;
  bool wouldBlock = false;
  int n = SocketRecv(socket_, &probe, 1, MSG_PEEK | MSG_DONTWAIT);
  if (n < 0) {
    switch (errno) {
      case EINTR:
      case EFAULT:
      case EINVAL:
      case EBADF:
      case ENOTSOCK:
      case EMSGSIZE:
      case EOPNOTSUPP:
      case ENETDOWN:
      case ENETRESET:
      case ECONNABORTED:
      case ECONNRESET:
      case EISCONN:
      case ESHUTDOWN:
      case ETIMEDOUT:
      case EPIPE:
        return false;
      case EAGAIN:
        wouldBlock = true;
        n = 0;
        break;
      default:  // EINPROGRESS and anything unknown: still there
        return true;
    }
  }
  if (n > 0 || readable == 0) return true;
  // A TLS socket can be readable with records that carry no application
  // data (a session ticket); that peer is still there.
  if (wouldBlock && IsSessionSecure()) return true;
  return false;
}

int CNetClient::GetMaxSend() {
  int size = 0;
  socklen_t length = sizeof size;
  if (socket_ == -1 || getsockopt(socket_, SOL_SOCKET, SO_SNDBUF, &size, &length) != 0) return -1;
  return size;
}

int CNetClient::SetReceiveTimeOut(int ms) {
  int result = socket_ == -1 ? 0 : SetTimeOutOption(socket_, SO_RCVTIMEO, ms);
  if (result == 0) receiveTimeOutMs_ = ms;
  return OnError(result);
}

int CNetClient::SetSendTimeOut(int ms) {
  int result = socket_ == -1 ? 0 : SetTimeOutOption(socket_, SO_SNDTIMEO, ms);
  if (result == 0) sendTimeOutMs_ = ms;
  return OnError(result);
}

int CNetClient::SetBlockingMode(int flag) {
  if (socket_ == -1) return 1;
  int flags = fcntl(socket_, F_GETFL);
  if (flags < 0) return 1;
  flags = flag != 0 ? flags | O_NONBLOCK : flags & ~O_NONBLOCK;
  if (fcntl(socket_, F_SETFL, flags) != 0) return 1;
  blockingMode_ = flag != 0 ? 1 : 0;
  return 0;
}

bool CNetClient::IsIPAddress(const char* text) {
  in_addr address{};
  return text != nullptr && inet_pton(AF_INET, text, &address) == 1;
}

int CNetClient::GetAddressFromName(const char* name, char* buffer, int size) {
  if (name == nullptr) return kNetNameLookupFailed;
  const char* host = HostPart(name);
  if (*host == '\0') return kNetNameLookupFailed;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) {
    return kNetNameLookupFailed;
  }
  std::unique_ptr<addrinfo, AddrInfoFree> owner(found);
  std::string dotted = Dotted(reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr);
  if (buffer == nullptr || static_cast<int>(dotted.size()) >= size) return kNetBufferTooShort;
  std::memcpy(buffer, dotted.c_str(), dotted.size() + 1);
  return kNetOk;
}

std::string CNetClient::GetLocalAddress() const {
  if (socket_ == -1) return "";
  return Dotted(LocalName(socket_).sin_addr);
}

}  // namespace corvane
