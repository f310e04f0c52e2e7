#include "handling/notify_program.h"

#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>
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

NotifyPrograms::NotifyPrograms(size_t maxRunning) : maxRunning_(std::max<size_t>(maxRunning, 1)) {}

int NotifyPrograms::RunNotifyProgram(const std::string& program, const std::string& mobile,
                                     const std::string& from, const std::string& date,
                                     const std::string& subject,
                                     const std::function<bool()>& stopping) {
  std::unique_lock guard(running_->lock);
  while (running_->count >= maxRunning_) {
    if (stopping()) return ECANCELED;
    running_->ended.wait_for(guard, std::chrono::milliseconds(50));
  }
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
  // Not waited for by the mail check; a reaper frees its place when it ends
  // (it takes the lock only once the place is counted).
  try {
    std::thread([running = running_, child] {
      waitpid(child, nullptr, 0);
      std::lock_guard ended(running->lock);
      --running->count;
      running->ended.notify_one();
    }).detach();
  } catch (const std::system_error&) {
    guard.unlock();
    waitpid(child, nullptr, 0);  // no thread to spare: the check waits for it
    return 0;
  }
  ++running_->count;
  return 0;
}

}  // namespace corvane
