#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace corvane::test {

// A server for one test on 127.0.0.1 (an ephemeral port) that plays a script
// against the client under test: expect a line, send bytes, pause, close.
// What it receives is recorded and every departure from the script is
// reported, so a test asserts on the conversation:
//
//   ScriptedPeer peer({Send("+OK ready\r\n"), Expect("USER joe\r\n"),
//                      Send("+OK\r\n"), Close()});
//   client.Connect(peer.port(), "127.0.0.1", 5);
//   ...
//   EXPECT_TRUE(peer.Finish()) << peer.Errors();
//
// Every wait is bounded, so a client that says nothing, or too much, fails
// the test instead of hanging it. The first failed step ends the script and
// closes the connection. After the last step an open connection is held until
// the client closes it or Finish is called.

inline std::string Printable(std::string_view bytes, size_t limit = 200) {
  std::string out;
  for (size_t i = 0; i < bytes.size() && i < limit; ++i) {
    unsigned char c = static_cast<unsigned char>(bytes[i]);
    if (c == '\r') {
      out += "\\r";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c < 32 || c > 126) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  if (bytes.size() > limit) out += "...(" + std::to_string(bytes.size()) + " bytes)";
  return "\"" + out + "\"";
}

inline int64_t PeerNowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The peer's side of the connection: the socket itself, or TLS over it.
class PeerStream {
 public:
  virtual ~PeerStream() = default;
  // Bytes read (> 0), 0 when the client has closed (or reset), -1 when
  // nothing came within `waitMs` or the connection failed.
  virtual int Read(char* buffer, int length, int waitMs) = 0;
  // Writes all of `bytes`; false when the connection failed.
  virtual bool Write(std::string_view bytes) = 0;
  // Ends the stream politely before the socket closes (TLS: close_notify).
  virtual void Shutdown() {}
};

class PlainPeerStream : public PeerStream {
 public:
  explicit PlainPeerStream(int socket) : socket_(socket) {}
  int Read(char* buffer, int length, int waitMs) override {
    pollfd entry{socket_, POLLIN, 0};
    if (::poll(&entry, 1, std::max(waitMs, 0)) <= 0) return -1;
    ssize_t n = ::recv(socket_, buffer, static_cast<size_t>(length), 0);
    if (n < 0) return errno == ECONNRESET ? 0 : -1;  // a client closing on unread data
    return static_cast<int>(n);
  }
  bool Write(std::string_view bytes) override {
    while (!bytes.empty()) {
      ssize_t n = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
  }

 private:
  int socket_;
};

// One accepted connection as the script's steps see it.
class PeerSession {
 public:
  explicit PeerSession(int socket)
      : socket_(socket), stream_(std::make_unique<PlainPeerStream>(socket)) {}
  ~PeerSession() { CloseSocket(false); }
  PeerSession(const PeerSession&) = delete;
  PeerSession& operator=(const PeerSession&) = delete;

  int socket() const { return socket_; }
  bool open() const { return socket_ >= 0; }
  PeerStream& stream() { return *stream_; }
  // Bytes read from the stream but not yet taken by a step.
  const std::string& pending() const { return pending_; }
  void ReplaceStream(std::unique_ptr<PeerStream> stream) { stream_ = std::move(stream); }

  // Everything received so far, in order (safe to call from another thread).
  std::string Received() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }

  // Takes one line, through its line feed, reading as needed. False (with
  // what did come in `line`) on time-out, close, or when `limit` bytes came
  // without a line feed.
  bool ReadLine(std::string& line, int waitMs, size_t limit = 64 * 1024) {
    int64_t deadline = PeerNowMs() + waitMs;
    for (;;) {
      size_t end = pending_.find('\n');
      if (end != std::string::npos) {
        line = pending_.substr(0, end + 1);
        pending_.erase(0, end + 1);
        return true;
      }
      if (pending_.size() >= limit || !Fill(deadline)) {
        line = std::move(pending_);
        pending_.clear();
        return false;
      }
    }
  }

  // Takes exactly `count` bytes; false (with what did come) otherwise.
  bool ReadExactly(size_t count, std::string& out, int waitMs) {
    int64_t deadline = PeerNowMs() + waitMs;
    while (pending_.size() < count) {
      if (!Fill(deadline)) {
        out = std::move(pending_);
        pending_.clear();
        return false;
      }
    }
    out = pending_.substr(0, count);
    pending_.erase(0, count);
    return true;
  }

  // Reads until the client closes; false when it has not within the wait.
  // What came is left in `rest`.
  bool ReadToClose(std::string& rest, int waitMs) {
    int64_t deadline = PeerNowMs() + waitMs;
    for (;;) {
      int got = ReadSome(deadline);
      if (got == 0) break;
      if (got < 0) {
        rest = std::move(pending_);
        pending_.clear();
        return false;
      }
    }
    rest = std::move(pending_);
    pending_.clear();
    return true;
  }

  bool Write(std::string_view bytes) { return stream_->Write(bytes); }

  // Closes the connection: politely (FIN after the stream's own ending) or
  // with a reset.
  void CloseSocket(bool reset) {
    if (socket_ < 0) return;
    if (reset) {
      linger hard{1, 0};
      ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    } else {
      stream_->Shutdown();
      ::shutdown(socket_, SHUT_WR);
    }
    ::close(socket_);
    socket_ = -1;
  }

 private:
  // Reads once into pending_: > 0 bytes, 0 closed, -1 time-out or failure.
  int ReadSome(int64_t deadline) {
    char chunk[16384];
    int n = stream_->Read(chunk, sizeof chunk,
                          static_cast<int>(std::max<int64_t>(deadline - PeerNowMs(), 0)));
    if (n > 0) {
      pending_.append(chunk, static_cast<size_t>(n));
      std::lock_guard<std::mutex> lock(mutex_);
      received_.append(chunk, static_cast<size_t>(n));
    }
    return n;
  }
  bool Fill(int64_t deadline) { return ReadSome(deadline) > 0; }

  int socket_;
  std::unique_ptr<PeerStream> stream_;
  std::string pending_;
  mutable std::mutex mutex_;
  std::string received_;
};

// One step of a script. Build them with the functions below.
struct Step {
  enum class Kind { kExpect, kSend, kPause, kClose, kReset, kExpectClose, kDrain, kDo, kAccept };
  Kind kind;
  std::string bytes;
  int ms = 0;
  // kDo: runs on the session; false (with a message in `error`) fails the
  // step.
  std::function<bool(PeerSession&, std::string& error)> action;
};

constexpr int kPeerWaitMs = 5000;

// The client sends exactly `bytes`. Text ending in a line feed is read line
// by line (so a different line is reported as soon as its line feed
// arrives); other text as that many bytes.
inline Step Expect(std::string bytes, int waitMs = kPeerWaitMs) {
  return Step{Step::Kind::kExpect, std::move(bytes), waitMs, nullptr};
}
inline Step Send(std::string bytes) {
  return Step{Step::Kind::kSend, std::move(bytes), 0, nullptr};
}
inline Step Pause(int ms) {
  return Step{Step::Kind::kPause, {}, ms, nullptr};
}
inline Step SendAfter(int ms, std::string bytes) {
  return Step{Step::Kind::kSend, std::move(bytes), ms, nullptr};
}
// The peer closes the connection (FIN).
inline Step Close() {
  return Step{Step::Kind::kClose, {}, 0, nullptr};
}
// The peer drops the connection with a reset.
inline Step Reset() {
  return Step{Step::Kind::kReset, {}, 0, nullptr};
}
// The client closes the connection without sending anything more.
inline Step ExpectClose(int waitMs = kPeerWaitMs) {
  return Step{Step::Kind::kExpectClose, {}, waitMs, nullptr};
}
// Whatever the client sends is taken (see Received) until it closes.
inline Step Drain(int waitMs = kPeerWaitMs) {
  return Step{Step::Kind::kDrain, {}, waitMs, nullptr};
}
// Anything else: `action` works on the session directly.
inline Step Do(std::function<bool(PeerSession&, std::string& error)> action) {
  return Step{Step::Kind::kDo, {}, 0, std::move(action)};
}
// Ends the current connection (if still open) and accepts the next one.
inline Step Accept(int waitMs = kPeerWaitMs) {
  return Step{Step::Kind::kAccept, {}, waitMs, nullptr};
}

// A step that writes `first`, then `piece` again and again (`pauseMs`
// apart) until the client shuts the connection, or for about a minute of
// pauses, or a million times.
inline Step Repeat(std::string first, std::string piece, int pauseMs = 0) {
  return Do([first, piece, pauseMs](PeerSession& session, std::string&) {
    session.Write(first);
    for (int i = 0; i < 1000000 && session.Write(piece); ++i) {
      if (pauseMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
      if (pauseMs * i > 60000) break;
    }
    return true;
  });
}

// The steps of every part, in order.
inline std::vector<Step> Join(std::vector<std::vector<Step>> parts) {
  std::vector<Step> all;
  for (auto& part : parts) {
    all.insert(all.end(), std::make_move_iterator(part.begin()),
               std::make_move_iterator(part.end()));
  }
  return all;
}

// A port on 127.0.0.1 that nothing listens on: bound once, then let go.
inline uint16_t ClosedPort() {
  int s = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ::bind(s, reinterpret_cast<sockaddr*>(&address), size);
  ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &size);
  ::close(s);
  return ntohs(address.sin_port);
}

class ScriptedPeer {
 public:
  // Listens at once; the script starts when the first client connects
  // (waited for at most `acceptWaitMs`).
  explicit ScriptedPeer(std::vector<Step> script, int acceptWaitMs = kPeerWaitMs)
      : script_(std::move(script)), acceptWaitMs_(acceptWaitMs) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        ::listen(listener_, 8) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
        ::pipe2(wake_, O_CLOEXEC) != 0) {
      AddError("cannot listen on 127.0.0.1");
      return;
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Play(); });
  }
  ~ScriptedPeer() {
    Finish();
    if (listener_ >= 0) ::close(listener_);
    for (int end : wake_) {
      if (end >= 0) ::close(end);
    }
  }
  ScriptedPeer(const ScriptedPeer&) = delete;
  ScriptedPeer& operator=(const ScriptedPeer&) = delete;

  uint16_t port() const { return port_; }

  // Waits for the script to end (each step is bounded), ends the hold of a
  // connection still open, and reports whether every step went as written.
  bool Finish() {
    if (wake_[1] >= 0 && !finishing_.exchange(true)) {
      char byte = 1;
      [[maybe_unused]] ssize_t n = ::write(wake_[1], &byte, 1);
    }
    if (thread_.joinable()) thread_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_.empty();
  }

  std::string Errors() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_;
  }
  // Every byte received, over all connections, in order.
  std::string Received() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_ + (session_ ? session_->Received() : std::string());
  }
  // Connections accepted so far.
  int Connections() const { return connections_.load(); }

 private:
  void AddError(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    errors_ += text + "\n";
  }

  bool AcceptOne(int waitMs) {
    EndSession();
    pollfd entry{listener_, POLLIN, 0};
    if (::poll(&entry, 1, waitMs) <= 0) return false;
    int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    session_ = std::make_unique<PeerSession>(socket);
    ++connections_;
    return true;
  }

  void EndSession() {
    std::unique_ptr<PeerSession> ended;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!session_) return;
      received_ += session_->Received();
      ended = std::move(session_);
    }
    ended->CloseSocket(false);
  }

  // Holds an open connection until the client closes it or Finish wakes us.
  void Hold() {
    while (session_ && session_->open()) {
      pollfd entries[2] = {{session_->socket(), POLLIN, 0}, {wake_[0], POLLIN, 0}};
      if (::poll(entries, 2, 60000) <= 0 || entries[1].revents != 0) return;
      std::string rest;
      if (session_->ReadToClose(rest, 0)) return;
    }
  }

  void Play() {
    // A write to a client that has gone must fail the step, not kill the
    // test program.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

    if (!AcceptOne(acceptWaitMs_)) {
      AddError("no client connected within " + std::to_string(acceptWaitMs_) + " ms");
      return;
    }
    for (size_t i = 0; i < script_.size(); ++i) {
      std::string error = RunStep(script_[i]);
      if (!error.empty()) {
        AddError("step " + std::to_string(i + 1) + ": " + error);
        EndSession();
        return;
      }
    }
    Hold();
    EndSession();
  }

  // The step's failure, or empty when it went as written.
  std::string RunStep(Step& step) {
    if (step.kind == Step::Kind::kAccept) {
      return AcceptOne(step.ms) ? "" : "no further client connected";
    }
    if (!session_ || !session_->open()) return "the connection is already closed";
    PeerSession& session = *session_;
    std::string got;
    switch (step.kind) {
      case Step::Kind::kExpect: {
        bool whole = true;
        if (!step.bytes.empty() && step.bytes.back() == '\n') {
          // As many lines as the text has, stopping at the first that differs.
          for (size_t at = 0; whole && at < step.bytes.size() && step.bytes.starts_with(got);) {
            size_t end = step.bytes.find('\n', at) + 1;
            std::string line;
            whole = session.ReadLine(line, step.ms, end - at + 4096);
            got += line;
            at = end;
          }
        } else {
          whole = session.ReadExactly(step.bytes.size(), got, step.ms);
        }
        if (whole && got == step.bytes) return "";
        return "expected " + Printable(step.bytes) + ", got " + Printable(got) +
               (whole ? "" : " before a time-out or the close");
      }
      case Step::Kind::kSend:
        if (step.ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(step.ms));
        return session.Write(step.bytes)
                   ? ""
                   : "the client went away before " + Printable(step.bytes) + " was sent";
      case Step::Kind::kPause:
        std::this_thread::sleep_for(std::chrono::milliseconds(step.ms));
        return "";
      case Step::Kind::kClose:
      case Step::Kind::kReset:
        session.CloseSocket(step.kind == Step::Kind::kReset);
        return "";
      case Step::Kind::kExpectClose:
        if (!session.ReadToClose(got, step.ms)) {
          return "the client did not close within " + std::to_string(step.ms) + " ms" +
                 (got.empty() ? "" : " and sent " + Printable(got));
        }
        return got.empty() ? "" : "the client sent " + Printable(got) + " before closing";
      case Step::Kind::kDrain:
        return session.ReadToClose(got, step.ms)
                   ? ""
                   : "the client did not close within " + std::to_string(step.ms) + " ms";
      case Step::Kind::kDo: {
        std::string error;
        if (step.action(session, error)) return "";
        return error.empty() ? "custom step failed" : error;
      }
      case Step::Kind::kAccept:
        break;
    }
    return "";
  }

  std::vector<Step> script_;
  int acceptWaitMs_;
  int listener_ = -1;
  int wake_[2] = {-1, -1};
  uint16_t port_ = 0;
  std::atomic<bool> finishing_{false};
  std::atomic<int> connections_{0};
  std::thread thread_;

  mutable std::mutex mutex_;  // errors_, received_ and the session pointer
  std::string errors_;
  std::string received_;
  std::unique_ptr<PeerSession> session_;
};

}  // namespace corvane::test
