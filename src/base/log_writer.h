#pragma once

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace corvane {

enum LogLevel : int { kLogDebug = 0, kLogInfo = 1, kLogWarning = 2, kLogError = 3 };

// Writes the daily log file "<directory>YYYY-MM-DD.log". Lines below the
// minimum level are dropped; callers end their own format with "\n". Lines reach
// the disk at once only at debug level, otherwise when the stream's buffer fills
// or the file is closed (at the change of day or at teardown).
class LogWriter {
 public:
  // Source of the current time; tests replace it to cross midnight.
  using Clock = std::function<std::time_t()>;

  // `directory` ends with the separator. Opens today's file at once.
  LogWriter(std::string directory, int minLevel, Clock clock = nullptr);
  ~LogWriter();
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;

  // Opens the current day's file; 0, or -1 after reporting on standard error.
  int Open();
  // Writes one line; always 0.
  int Write(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
  int WriteV(int level, const char* format, va_list args);
  void Close();

  int MinLevel() const { return minLevel_; }
  // The file name that `Open` uses for the day of `when`.
  std::string FileNameFor(std::time_t when) const;

 private:
  bool OpenLocked(std::time_t now);

  std::string directory_;
  int minLevel_;
  int dayOfYear_ = 0;
  std::unique_ptr<FILE, int (*)(FILE*)> file_{nullptr, std::fclose};
  Clock clock_;
  std::mutex mutex_;  // keeps the prefix and message of one line together
};

}  // namespace corvane
