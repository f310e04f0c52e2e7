// The request server's framing on a real connection: the fuzz bytes are a
// client's stream into a socket worker (receive, work and send threads over
// a socket pair). Each body the framing cuts out is decoded and handed to a
// dispatcher that answers with the request itself, so the answers' framing
// and queueing run too. A marker request sent behind the fuzz bytes must come
// through: framing that never comes back to it is a hang. Then the bytes come
// once more and the client ends its stream: the worker must close the
// connection, wherever in a frame it stands.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "transport/counted_string.h"
#include "transport/socket_worker.h"

namespace {

constexpr std::string_view kMarker = "corvane-fuzz-marker";
constexpr auto kHangLimit = std::chrono::seconds(10);

// The marker as one frame in the "rapid" framing: no digit anywhere in its
// body, so a reader that starts inside one of these frames skips to the
// next frame's first byte and is back in step within two frames.
std::string MarkerFrame() {
  std::string body = "rapid";
  for (char c : kMarker) body += static_cast<char>(c + 1);
  return corvane::CountedString::Encode(body);
}

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "frame_reader_fuzz: %s\n", what);
  std::abort();
}

struct Dispatched {
  std::mutex mutex;
  std::condition_variable arrived;
  bool marker = false;

  // True once the marker request has been dispatched; waits up to `us`.
  bool Wait(int us) {
    std::unique_lock lock(mutex);
    return arrived.wait_for(lock, std::chrono::microseconds(us), [this] { return marker; });
  }
};

// The client's end of the connection: writes what is queued and reads the
// answers away, so neither side ever blocks the other.
class ClientEnd {
 public:
  ClientEnd(int socket, std::chrono::steady_clock::time_point deadline)
      : socket_(socket), deadline_(deadline) {}

  void Queue(std::string_view bytes) { pending_ += bytes; }
  bool Idle() const { return pending_.empty(); }

  // One step of writing and reading; false once the worker has closed the
  // connection. Past the deadline the run is a hang.
  bool Pump() {
    if (std::chrono::steady_clock::now() > deadline_) Fail("the worker hangs");
    short events = POLLIN;
    if (!pending_.empty()) events |= POLLOUT;
    pollfd ready{socket_, events, 0};
    if (poll(&ready, 1, 1) < 1) return true;
    if (ready.revents & (POLLIN | POLLHUP)) {
      char answers[65536];
      if (read(socket_, answers, sizeof answers) <= 0) return false;
    }
    if (ready.revents & POLLOUT) {
      ssize_t written = write(socket_, pending_.data(), pending_.size());
      if (written > 0) pending_.erase(0, static_cast<size_t>(written));
    }
    return true;
  }

 private:
  const int socket_;
  const std::chrono::steady_clock::time_point deadline_;
  std::string pending_;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The worker's console diagnostics would drown the fuzzer's own output.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string marker = MarkerFrame();
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) std::abort();
  const int client = ends[0];
  fcntl(client, F_SETFL, O_NONBLOCK);

  Dispatched dispatched;
  const corvane::RequestDispatcher dispatcher = [&dispatched](std::string_view request) {
    if (request == kMarker) {
      std::lock_guard lock(dispatched.mutex);
      dispatched.marker = true;
      dispatched.arrived.notify_all();
      return std::string();
    }
    return std::string(request);
  };
  {
    corvane::CSocketWorker worker(ends[1], "127.0.0.1", 8500, dispatcher);
    if (!worker.Start()) std::abort();
    const auto deadline = std::chrono::steady_clock::now() + kHangLimit;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);

    // The fuzz bytes, then markers as long as none has come through (a
    // reader inside a long body needs many of them).
    ClientEnd stream(client, deadline);
    stream.Queue(bytes);
    stream.Queue(marker);
    size_t markers = 1;
    while (!dispatched.Wait(stream.Idle() ? 500 : 0)) {
      if (stream.Idle()) {
        markers = std::min<size_t>(markers * 4, 4096);
        for (size_t i = 0; i < markers; ++i) stream.Queue(marker);
      }
      if (!stream.Pump()) Fail("the worker closed the connection");
    }
    // The same bytes once more, and then the client's end of the stream:
    // whatever state they leave the framing in, the worker closes too.
    stream.Queue(bytes);
    while (!stream.Idle()) {
      if (!stream.Pump()) break;
    }
    shutdown(client, SHUT_WR);
    while (stream.Pump()) {
    }
  }
  close(client);
  return 0;
}
