#pragma once

namespace corvane {

// The request server's low-level diagnostics ("Recv Exit errno: %d\n", ...)
// go to standard output only, never to the log file.
void Console(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace corvane
