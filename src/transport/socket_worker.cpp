#include "transport/socket_worker.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <optional>
#include <system_error>
#include <vector>

#include "base/decimal_text.h"
#include "base/limits.h"
#include "transport/console.h"
#include "transport/wx_codec.h"

namespace corvane {
namespace {

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

CSocketWorker::CSocketWorker(int socket, std::string peerAddress, uint16_t peerPort,
                             const RequestDispatcher& dispatcher, std::function<void()> onSettled)
    : socket_(socket),
      peerAddress_(std::move(peerAddress)),
      peerPort_(peerPort),
      dispatcher_(dispatcher),
      onSettled_(std::move(onSettled)) {
  TouchActivity();
}

CSocketWorker::~CSocketWorker() {
  Stop();
  ::close(socket_);
}

bool CSocketWorker::Start() {
  if (recvThread_.joinable() || stopRequested_) return false;
  TouchActivity();
  try {
    recvThread_ = std::thread(&CSocketWorker::ReceiveLoop, this);
    sendThread_ = std::thread(&CSocketWorker::SendLoop, this);
    workThread_ = std::thread(&CSocketWorker::WorkLoop, this);
  } catch (const std::system_error&) {
    Stop();
    return false;
  }
  return true;
}

void CSocketWorker::Stop() {
  std::lock_guard guard(stopMutex_);
  if (stopRequested_.exchange(true)) return;
  // Closing wakes every thread: a blocked recv or send returns, and both
  // waits see the closed socket.
  CloseSocket();
  for (std::thread* thread : {&recvThread_, &sendThread_, &workThread_}) {
    if (thread->joinable()) thread->join();
  }
  {
    std::lock_guard lock(sendMutex_);
    sendQueue_.clear();
    sendQueuedBytes_ = 0;
  }
  std::lock_guard lock(receiveMutex_);
  receiveQueue_.clear();
  receiveQueuedBytes_ = 0;
}

void CSocketWorker::CloseSocket() {
  if (socketValid_.exchange(false)) ::shutdown(socket_, SHUT_RDWR);
  // Taking each lock before notifying keeps a waiter from missing the change
  // between testing the socket and going to sleep.
  { std::lock_guard lock(receiveMutex_); }
  workCv_.notify_all();
  receiveRoomCv_.notify_all();
  { std::lock_guard lock(sendMutex_); }
  sendCv_.notify_all();
  sendRoomCv_.notify_all();
}

bool CSocketWorker::Settled() const {
  if (!SocketValid()) return true;
  if (inRequest_) return false;
  std::lock_guard lock(sendMutex_);
  return sendQueue_.empty() && !sending_;
}

void CSocketWorker::SetIdleTimeoutMs(int32_t ms) {
  idleTimeoutMs_ = ms > 0 ? ms : -1;
  {
    std::lock_guard lock(sendMutex_);
    idleLimitChanged_ = true;
  }
  sendCv_.notify_all();
}

void CSocketWorker::TouchActivity() {
  lastActivityMs_ = NowMs();
}

bool CSocketWorker::IdleExpired() const {
  int64_t limit = idleTimeoutMs_;
  return limit > 0 && NowMs() - lastActivityMs_ > limit;
}

void CSocketWorker::NotifySettled() {
  if (onSettled_) onSettled_();
}

void CSocketWorker::ReceiveLoop() {
  std::vector<char> buffer(kReceiveBufferSize);
  while (!stopRequested_) {
    {
      std::unique_lock lock(receiveMutex_);
      receiveRoomCv_.wait(lock, [this] {
        return receiveQueuedBytes_ < limits::kMaxQueuedRequestBytes || !SocketValid() ||
               stopRequested_;
      });
      if (!SocketValid() || stopRequested_) break;
    }
    ssize_t got = ::recv(socket_, buffer.data(), buffer.size(), 0);
    if (got <= 0) {
      int error = got < 0 ? errno : 0;
      Console("Recv Exit errno: %d\n", error);
      if (error == EMSGSIZE) {
        buffer.resize(buffer.size() * 2);
        continue;
      }
      if (error == EINTR) continue;
      break;
    }
    TouchActivity();
    bool queued = false;
    for (int attempt = 0; attempt < 2 && !queued; ++attempt) {
      try {
        std::lock_guard lock(receiveMutex_);
        receiveQueue_.emplace_back(buffer.data(), static_cast<size_t>(got));
        receiveQueuedBytes_ += static_cast<size_t>(got);
        queued = true;
      } catch (const std::bad_alloc&) {
        if (attempt == 0) std::this_thread::sleep_for(std::chrono::milliseconds(500));
      }
    }
    if (!queued) break;
    workCv_.notify_one();
  }
  CloseSocket();
}

void CSocketWorker::SendLoop() {
  std::string coalesced;
  coalesced.reserve(kSendBufferSize);
  std::unique_lock lock(sendMutex_);
  auto wake = [this] {
    return sendSignalled_ || idleLimitChanged_ || !SocketValid() || stopRequested_;
  };
  while (SocketValid()) {
    if (!sendSignalled_) {
      // Sleep until an answer is queued or the connection reaches its idle
      // deadline, so an idle connection closes right on time.
      int64_t limit = idleTimeoutMs_;
      if (limit > 0) {
        Clock::time_point deadline{std::chrono::milliseconds(lastActivityMs_ + limit + 1)};
        sendCv_.wait_until(lock, deadline, wake);
      } else {
        sendCv_.wait(lock, wake);
      }
      idleLimitChanged_ = false;
      if (!SocketValid() || stopRequested_) break;
      if (!sendSignalled_) {
        if (IdleExpired()) break;
        continue;
      }
    }
    sendSignalled_ = false;
    DrainSendQueue(lock, coalesced);
    lock.unlock();
    NotifySettled();
    lock.lock();
    if (stopRequested_) break;
  }
  lock.unlock();
  CloseSocket();
  NotifySettled();
}

void CSocketWorker::DrainSendQueue(std::unique_lock<std::mutex>& lock, std::string& coalesced) {
  while (!sendQueue_.empty()) {
    std::string alone;
    coalesced.clear();
    if (sendQueue_.front().size() > kSendBufferSize) {
      alone = std::move(sendQueue_.front()).Release();
      sendQueue_.pop_front();
    } else {
      while (!sendQueue_.empty() &&
             sendQueue_.front().size() <= kSendBufferSize - coalesced.size()) {
        coalesced.append(sendQueue_.front().data(), sendQueue_.front().size());
        sendQueue_.pop_front();
      }
    }
    const std::string& out = alone.empty() ? coalesced : alone;
    sendQueuedBytes_ -= std::min(sendQueuedBytes_, out.size());
    sending_ = true;
    lock.unlock();
    ssize_t sent = ::send(socket_, out.data(), out.size(), MSG_NOSIGNAL);
    int error = sent < 0 ? errno : 0;
    TouchActivity();
    lock.lock();
    sending_ = false;
    // A partial send counts as complete: clients have always seen it so.
    if (sent <= 0) {
      Console("Send Exit errno: %d\n", error);
      sendQueue_.emplace_front(out);
      sendQueuedBytes_ += out.size();
      return;
    }
    sendRoomCv_.notify_all();
  }
}

void CSocketWorker::WorkLoop() {
  try {
    Work();
  } catch (const std::exception&) {
    // A request that blew up ends its connection, not the gateway.
  }
  Console("Work Exit errno: %d\n", errno);
  CloseSocket();
  NotifySettled();
}

void CSocketWorker::Work() {
  while (SocketValid()) {
    {
      std::unique_lock lock(receiveMutex_);
      workCv_.wait(lock,
                   [this] { return !receiveQueue_.empty() || !SocketValid() || stopRequested_; });
      if (receiveQueue_.empty()) break;
    }
    // Header: one digit D, then D length digits. A byte that is not a digit
    // reads as D = 0 and is skipped, so the stream resynchronises byte by byte.
    char header[10] = {};
    if (ReadBytes(header, 1, true) < 1) break;
    int32_t digits = ReadDecimal(std::string_view(header, 1));
    if (digits == 0) continue;
    if (ReadBytes(header, static_cast<size_t>(digits), true) < static_cast<size_t>(digits)) break;
    int32_t length = ReadDecimal(std::string_view(header, static_cast<size_t>(digits)));
    // A length out of range drops only the header; its body is read as
    // headers by the next passes.
    if (length < 1 || length > kMaxRequestLength) continue;

    std::string body(static_cast<size_t>(length), '\0');
    // A client gone mid-frame leaves an incomplete request: never act on it.
    if (ReadBytes(body.data(), body.size(), true) < body.size()) break;

    inRequest_ = true;
    std::string answer;
    {
      wxCodec codec;
      int32_t plainLength = 0;
      std::optional<std::string> plain =
          codec.Transform(body.data(), length, &plainLength, wxCodec::kDecode);
      std::string_view request;
      if (plain && plainLength > 0) {
        request = std::string_view(*plain).substr(0, static_cast<size_t>(plainLength));
      }
      answer = dispatcher_(request);
    }
    body = std::string();
    SendResponse(answer);
    inRequest_ = false;
    NotifySettled();
  }
}

size_t CSocketWorker::ReadBytes(char* dest, size_t n, bool wait) {
  size_t taken = 0;
  std::unique_lock lock(receiveMutex_);
  while (taken < n) {
    if (receiveQueue_.empty()) {
      if (!wait || !SocketValid()) break;
      workCv_.wait(lock, [this] { return !receiveQueue_.empty() || !SocketValid(); });
      continue;
    }
    DataChunk& front = receiveQueue_.front();
    size_t wanted = n - taken;
    size_t moved = std::min(front.size(), wanted);
    std::memcpy(dest + taken, front.data(), moved);
    taken += moved;
    receiveQueuedBytes_ -= moved;
    if (moved == front.size()) {
      receiveQueue_.pop_front();
    } else {
      front.Consume(moved);
    }
    receiveRoomCv_.notify_one();
  }
  return taken;
}

void CSocketWorker::SendResponse(std::string_view answer) {
  if (answer.empty() || answer.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
    return;
  }
  wxCodec codec;
  int32_t encodedLength = 0;
  std::optional<std::string> encoded = codec.Transform(
      answer.data(), static_cast<int32_t>(answer.size()), &encodedLength, wxCodec::kEncode);
  if (!encoded || encodedLength <= 0) return;
  size_t bodyLength = std::min(static_cast<size_t>(encodedLength), encoded->size());
  std::string digits = std::to_string(bodyLength);
  std::string frame;
  frame.reserve(1 + digits.size() + bodyLength);
  frame += static_cast<char>('0' + digits.size());
  frame += digits;
  frame.append(encoded->data(), bodyLength);
  {
    std::unique_lock lock(sendMutex_);
    // A client that does not read its answers holds this request until it
    // does, or until the connection closes.
    sendRoomCv_.wait(lock, [this] {
      return sendQueuedBytes_ < limits::kMaxQueuedAnswerBytes || !SocketValid() || stopRequested_;
    });
    if (!SocketValid() || stopRequested_) return;
    sendQueuedBytes_ += frame.size();
    sendQueue_.emplace_back(std::move(frame));
    sendSignalled_ = true;
  }
  sendCv_.notify_one();
}

}  // namespace corvane
