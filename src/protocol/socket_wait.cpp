#include "protocol/socket_wait.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace corvane {

int64_t MonotonicMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int PollSocket(int socket, short events, int64_t waitMs) {
  if (socket < 0) return -1;
  pollfd entry{socket, events, 0};
  int64_t deadline = MonotonicMs() + std::max<int64_t>(waitMs, 0);
  for (;;) {
    int64_t left = std::clamp<int64_t>(deadline - MonotonicMs(), 0, 1 << 30);
    int n = ::poll(&entry, 1, static_cast<int>(left));
    if (n > 0) return (entry.revents & POLLNVAL) != 0 ? -1 : 1;
    if (n == 0) return 0;
    if (errno != EINTR) return -1;  // a signal only restarts the rest of the wait
  }
}

}  // namespace corvane
