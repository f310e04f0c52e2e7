#pragma once

#include <cstdint>

namespace corvane {

// A monotonic clock in milliseconds, for deadlines.
int64_t MonotonicMs();

// Waits up to `waitMs` (0: just look) for `socket` to be ready for `events`
// (POLLIN, POLLOUT). 1 when it is, or when it has failed or hung up (a read
// or write then returns at once); 0 when the wait ran out; -1 when the socket
// can't be polled.
int PollSocket(int socket, short events, int64_t waitMs);

}  // namespace corvane
