#pragma once

#include <string>

namespace corvane {

// The command line a new-mail notice is logged with:
// program "mobile" "from" "date" "subject", cut to 4095 bytes.
std::string NotifyCommandLine(const std::string& program, const std::string& mobile,
                              const std::string& from, const std::string& date,
                              const std::string& subject);

// Starts the notification program with the four values as separate
// arguments, without a shell: sender and subject are whatever a mail said.
// Does not wait for it; the child is reaped when it ends. 0 when it started,
// else the error number (which the caller ignores).
int RunNotifyProgram(const std::string& program, const std::string& mobile, const std::string& from,
                     const std::string& date, const std::string& subject);

}  // namespace corvane
