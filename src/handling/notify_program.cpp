#include "handling/notify_program.h"

#include <spawn.h>
#include <sys/wait.h>

#include <thread>

extern char** environ;

namespace corvane {
namespace {

constexpr size_t kCommandLineRoom = 4096;

}  // namespace

std::string NotifyCommandLine(const std::string& program, const std::string& mobile,
                              const std::string& from, const std::string& date,
                              const std::string& subject) {
  std::string line =
      program + " \"" + mobile + "\" \"" + from + "\" \"" + date + "\" \"" + subject + "\"";
  if (line.size() >= kCommandLineRoom) line.resize(kCommandLineRoom - 1);
  return line;
}

int RunNotifyProgram(const std::string& program, const std::string& mobile, const std::string& from,
                     const std::string& date, const std::string& subject) {
  std::string arguments[] = {program, mobile, from, date, subject};
  char* argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(),
                  arguments[3].data(), arguments[4].data(), nullptr};
  // The gateway blocks its stop signals; the program gets a clean mask.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  pid_t child = 0;
  int error = posix_spawn(&child, program.c_str(), nullptr, &attributes, argv, environ);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) return error;
  // Not waited for by the mail check; a watcher reaps it so no zombie stays.
  std::thread([child] { waitpid(child, nullptr, 0); }).detach();
  return 0;
}

}  // namespace corvane
