#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
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
// against the client under test (expect bytes, send bytes, pause, close),
// records what it receives and ends at the first departure from the script
// with an error: EXPECT_TRUE(peer.Finish()) << peer.Errors(). Every wait is
// bounded, so a client that says nothing, or too much, fails the test instead
// of hanging it. After the last step an open connection is held until the
// client closes it or Finish is called.

inline std::string Printable(std::string_view bytes, size_t limit = 200) {
  std::string out = "\"";
  for (unsigned char c : bytes.substr(0, limit)) {
    std::string hex = {'\\', 'x', "0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    out += c == '\r'           ? "\\r"
           : c == '\n'         ? "\\n"
           : c < 32 || c > 126 ? hex
                               : std::string(1, char(c));
  }
  if (bytes.size() > limit) out += "...(" + std::to_string(bytes.size()) + " bytes)";
  return out + "\"";
}

inline int64_t PeerNowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// The peer's side of a connection when it is not the bare socket (TLS).
class PeerStream {
 public:
  virtual ~PeerStream() = default;
  // Bytes read (> 0), 0 when the client has closed, -1 on time-out or failure.
  virtual int Read(char* buffer, int length, int waitMs) = 0;
  virtual bool Write(std::string_view bytes) = 0;  // all of it, or false
  virtual void Shutdown() {}                       // the polite end (TLS: close_notify)
};

// One accepted connection as the script's steps see it; every byte it reads
// is also added to `received` under `mutex`.
class PeerSession {
 public:
  PeerSession(int socket, std::mutex& mutex, std::string& received)
      : socket_(socket), mutex_(mutex), received_(received) {}
  ~PeerSession() { CloseSocket(false); }
  PeerSession(const PeerSession&) = delete;
  PeerSession& operator=(const PeerSession&) = delete;

  int socket() const { return socket_; }
  bool open() const { return socket_ >= 0; }
  const std::string& pending() const { return pending_; }  // read, not yet taken
  void ReplaceStream(std::unique_ptr<PeerStream> stream) { stream_ = std::move(stream); }

  // Reads until `ready` (of the pending bytes) says how many to take (>= 0,
  // true) or to give up (-2); a time-out, a close or giving up leave all
  // that came in `out` (false).
  bool Take(std::string& out, int waitMs, const std::function<long(const std::string&)>& ready) {
    int64_t deadline = PeerNowMs() + waitMs;
    long count;
    while ((count = ready(pending_)) == -1 && ReadSome(deadline) > 0) {
    }
    size_t taken = count >= 0 ? static_cast<size_t>(count) : pending_.size();
    out = pending_.substr(0, taken);
    pending_.erase(0, taken);
    return count >= 0;
  }
  // Takes one line, through its line feed. False (with what did come in
  // `line`) on time-out, close, or when `limit` bytes came without a line feed.
  bool ReadLine(std::string& line, int waitMs, size_t limit = 64 * 1024) {
    return Take(line, waitMs, [limit](const std::string& in) -> long {
      size_t end = in.find('\n');
      return end != std::string::npos ? static_cast<long>(end + 1) : in.size() >= limit ? -2 : -1;
    });
  }
  // Reads until the client closes (true) or the wait ends; what came is in `rest`.
  bool ReadToClose(std::string& rest, int waitMs) {
    int64_t deadline = PeerNowMs() + waitMs;
    int got;
    while ((got = ReadSome(deadline)) > 0) {
    }
    rest = std::exchange(pending_, "");
    return got == 0;
  }

  bool Write(std::string_view bytes) {
    if (stream_) return stream_->Write(bytes);
    while (!bytes.empty()) {
      ssize_t n = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n <= 0 && errno != EINTR) return false;
      bytes.remove_prefix(static_cast<size_t>(std::max<ssize_t>(n, 0)));
    }
    return true;
  }

  // Closes the connection: politely (FIN after the stream's own end) or with a reset.
  void CloseSocket(bool reset) {
    if (socket_ < 0) return;
    linger hard{1, 0};
    if (reset) ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    if (!reset && stream_) stream_->Shutdown();
    if (!reset) ::shutdown(socket_, SHUT_WR);
    ::close(socket_);
    socket_ = -1;
  }

 private:
  // Reads once into pending_: > 0 bytes, 0 closed, -1 time-out or failure.
  int ReadSome(int64_t deadline) {
    char chunk[16384];
    int waitMs = static_cast<int>(std::max<int64_t>(deadline - PeerNowMs(), 0));
    int n = -1;
    if (stream_) {
      n = stream_->Read(chunk, sizeof chunk, waitMs);
    } else if (pollfd entry{socket_, POLLIN, 0}; ::poll(&entry, 1, waitMs) > 0) {
      n = static_cast<int>(::recv(socket_, chunk, sizeof chunk, 0));
      if (n < 0 && errno == ECONNRESET) n = 0;  // a client closing on unread data
    }
    if (n > 0) {
      pending_.append(chunk, static_cast<size_t>(n));
      std::lock_guard<std::mutex> lock(mutex_);
      received_.append(chunk, static_cast<size_t>(n));
    }
    return n;
  }

  int socket_;
  std::mutex& mutex_;
  std::string& received_;
  std::unique_ptr<PeerStream> stream_;
  std::string pending_;
};

// One step of a script: an action on the connection, false (with a message
// in `error`) when it did not go as written; or, with `acceptWaitMs` of 0 or
// more, the end of the connection and the accept of the next one.
struct Step {
  std::function<bool(PeerSession&, std::string& error)> action;
  int acceptWaitMs = -1;
};

constexpr int kPeerWaitMs = 5000;

inline Step Do(std::function<bool(PeerSession&, std::string& error)> action) {
  return {std::move(action)};
}
// The client sends exactly `bytes`. Text ending in a line feed is read line
// by line, so that a different line is reported as soon as its line feed
// arrives; other text as that many bytes.
inline Step Expect(std::string bytes, int waitMs = kPeerWaitMs) {
  return Do([bytes, waitMs](PeerSession& session, std::string& error) {
    std::string got, line;
    bool lines = bytes.ends_with('\n');
    bool whole = lines || session.Take(got, waitMs, [&bytes](const std::string& in) -> long {
      return in.size() >= bytes.size() ? static_cast<long>(bytes.size()) : -1;
    });
    while (lines && whole && got.size() < bytes.size() && bytes.starts_with(got)) {
      whole = session.ReadLine(line, waitMs, bytes.find('\n', got.size()) + 1 - got.size() + 4096);
      got += line;
    }
    if (whole && got == bytes) return true;
    error = "expected " + Printable(bytes) + ", got " + Printable(got) +
            (whole ? "" : " before a time-out or the close");
    return false;
  });
}
inline Step Send(std::string bytes) {
  return Do([bytes](PeerSession& session, std::string& error) {
    if (!session.Write(bytes)) error = "the client went away before " + Printable(bytes);
    return error.empty();
  });
}
inline Step Pause(int ms) {
  return Do([ms](PeerSession&, std::string&) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    return true;
  });
}
// The peer closes the connection (FIN), or with `reset` drops it (RST).
inline Step Close(bool reset = false) {
  return Do([reset](PeerSession& session, std::string&) {
    session.CloseSocket(reset);
    return true;
  });
}
// The client closes the connection: having sent nothing more (ExpectClose),
// or whatever it sends (Drain, see Received).
inline Step ExpectClose(int waitMs = kPeerWaitMs, bool anything = false) {
  return Do([waitMs, anything](PeerSession& session, std::string& error) {
    std::string got;
    if (!session.ReadToClose(got, waitMs)) {
      error = "the client did not close within " + std::to_string(waitMs) + " ms";
    } else if (!anything && !got.empty()) {
      error = "the client sent " + Printable(got) + " before closing";
    }
    return error.empty();
  });
}
inline Step Drain(int waitMs = kPeerWaitMs) {
  return ExpectClose(waitMs, true);
}
// Ends the current connection (if still open) and accepts the next one.
inline Step Accept(int waitMs = kPeerWaitMs) {
  return {nullptr, waitMs};
}
// Writes `first`, then `piece` again and again (`pauseMs` apart) until the
// client shuts the connection, or for about a minute of pauses, or a million times.
inline Step Repeat(std::string first, std::string piece, int pauseMs = 0) {
  return Do([first, piece, pauseMs](PeerSession& session, std::string&) {
    session.Write(first);
    for (int i = 0; i < 1000000 && session.Write(piece) && pauseMs * i <= 60000; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
    }
    return true;
  });
}

// A dialogue as the RFCs write one: "C: line" the client sends, "S: line"
// the server answers, one a line, each with its CRLF added. Server lines in
// a row go out together, as a server sends a reply of several lines.
inline std::vector<Step> Dialogue(std::string_view text) {
  std::vector<Step> steps;
  std::string answer;
  for (size_t at = 0, end; at < text.size(); at = end + 1) {
    end = std::min(text.find('\n', at), text.size());
    std::string line = std::string(text.substr(at + 3, end - std::min(at + 3, end))) + "\r\n";
    if (text.substr(at, 3) == "S: ") answer += line;
    if (text.substr(at, 3) != "C: ") continue;
    if (!answer.empty()) steps.push_back(Send(std::exchange(answer, "")));
    steps.push_back(Expect(line));
  }
  if (!answer.empty()) steps.push_back(Send(answer));
  return steps;
}

// The steps of every part, in order.
inline std::vector<Step> Join(std::vector<std::vector<Step>> parts) {
  std::vector<Step> all;
  for (auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

// A listening socket on 127.0.0.1 with an ephemeral port (into `port`), or -1.
inline int ListenOnLoopback(uint16_t& port, int backlog = 8) {
  int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t size = sizeof address;
  auto* any = reinterpret_cast<sockaddr*>(&address);
  if (s >= 0 && (::bind(s, any, size) != 0 || ::listen(s, backlog) != 0 ||
                 ::getsockname(s, any, &size) != 0)) {
    ::close(s);
    s = -1;
  }
  port = ntohs(address.sin_port);
  return s;
}

// A port on 127.0.0.1 that nothing listens on: taken once, then let go.
inline uint16_t ClosedPort() {
  uint16_t port = 0;
  ::close(ListenOnLoopback(port));
  return port;
}

class ScriptedPeer {
 public:
  // Listens at once; the script starts when the first client connects
  // (waited for at most `acceptWaitMs`).
  explicit ScriptedPeer(std::vector<Step> script, int acceptWaitMs = kPeerWaitMs)
      : script_(std::move(script)), listener_(ListenOnLoopback(port_)) {
    script_.insert(script_.begin(), Accept(acceptWaitMs));
    thread_ = std::thread([this] { Play(); });
  }
  ~ScriptedPeer() {
    Finish();
    ::close(listener_);
  }
  ScriptedPeer(const ScriptedPeer&) = delete;
  ScriptedPeer& operator=(const ScriptedPeer&) = delete;

  uint16_t port() const { return port_; }
  // Waits for the script to end (each step is bounded), ends the hold of a
  // connection still open, and reports whether every step went as written.
  bool Finish() {
    finishing_ = true;
    if (thread_.joinable()) thread_.join();
    return Errors().empty();
  }
  std::string Errors() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_;
  }
  // Every byte received, over all connections, in order.
  std::string Received() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }
  int Connections() const { return connections_.load(); }  // accepted so far

 private:
  void Play() {
    // A write to a client that has gone must fail the step, not kill the test program.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    std::string error = listener_ < 0 ? "cannot listen on 127.0.0.1" : "";
    for (size_t i = 0; error.empty() && i < script_.size(); ++i) {
      std::string at = "step " + std::to_string(i) + ": ";
      if (script_[i].acceptWaitMs >= 0) {
        if (!AcceptOne(script_[i].acceptWaitMs)) {
          error = i == 0 ? "no client connected within " + std::to_string(script_[i].acceptWaitMs) +
                               " ms"
                         : at + "no further client connected";
        }
      } else if (!session_->open()) {
        error = at + "the connection is already closed";
      } else if (!script_[i].action(*session_, error)) {
        error = at + (error.empty() ? "custom step failed" : error);
      }
    }
    // Holds an open connection until the client closes it or Finish is called.
    std::string rest;
    while (error.empty() && session_ && session_->open() && !finishing_ &&
           !session_->ReadToClose(rest, 50)) {
    }
    session_.reset();
    std::lock_guard<std::mutex> lock(mutex_);
    errors_ += error.empty() ? "" : error + "\n";
  }

  bool AcceptOne(int waitMs) {
    session_.reset();
    pollfd entry{listener_, POLLIN, 0};
    int socket =
        ::poll(&entry, 1, waitMs) > 0 ? ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    if (socket >= 0)
      session_ = std::make_unique<PeerSession>(socket, mutex_, received_), ++connections_;
    return socket >= 0;
  }

  std::vector<Step> script_;
  uint16_t port_ = 0;
  int listener_;
  std::atomic<bool> finishing_{false};
  std::atomic<int> connections_{0};
  std::thread thread_;
  mutable std::mutex mutex_;  // errors_ and received_
  std::string errors_, received_;
  std::unique_ptr<PeerSession> session_;
};

}  // namespace corvane::test
