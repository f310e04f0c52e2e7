#include "base/log_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/ascii_text.h"

namespace corvane {
namespace {

// A line longer than this is cut: a client or a server chooses most of what
// is logged, and must not be able to fill the disk with one line.
constexpr size_t kMaxLineBytes = 8192;

std::tm LocalTime(std::time_t when) {
  std::tm parts{};
  localtime_r(&when, &parts);
  return parts;
}

// The formatted line with every control byte but TAB written as "\xHH": text
// from outside (a command name, a server reply, a subject) can neither start
// a forged line nor hide one. Only the caller's own final "\n" ends the line.
std::string FormatLine(const char* format, va_list args) {
  char buffer[kMaxLineBytes];
  int length = std::vsnprintf(buffer, sizeof buffer, format, args);
  if (length < 0) return {};
  std::string_view text(buffer, std::min(static_cast<size_t>(length), sizeof buffer - 1));
  bool cut = static_cast<size_t>(length) >= sizeof buffer;
  bool ends = !cut && !text.empty() && text.back() == '\n';
  if (ends) text.remove_suffix(1);
  std::string line;
  line.reserve(std::min(text.size() + 8, kMaxLineBytes + 4));
  // The cut counts the escapes: control bytes must not make a line four
  // times as long as its text.
  if (!AppendEscaped(line, text, kMaxLineBytes - 1)) cut = true;
  if (cut) line += "...\n";
  if (ends && !cut) line += '\n';
  return line;
}

}  // namespace

LogWriter::LogWriter(std::string directory, int minLevel, Clock clock)
    : directory_(std::move(directory)), minLevel_(minLevel), clock_(std::move(clock)) {
  if (!clock_) clock_ = [] { return std::time(nullptr); };
  Open();
}

LogWriter::~LogWriter() {
  Close();
  directory_.clear();
}

std::string LogWriter::FileNameFor(std::time_t when) const {
  std::tm parts = LocalTime(when);
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%d", &parts);
  return directory_ + date + ".log";
}

bool LogWriter::OpenLocked(std::time_t now) {
  dayOfYear_ = LocalTime(now).tm_yday;
  file_.reset(std::fopen(FileNameFor(now).c_str(), "a+"));
  if (file_) std::fseek(file_.get(), 0, SEEK_END);
  return file_ != nullptr;
}

int LogWriter::Open() {
  std::lock_guard lock(mutex_);
  if (OpenLocked(clock_())) return 0;
  std::fprintf(stderr, "fopen failed: %s\n", std::strerror(errno));
  return -1;
}

int LogWriter::Write(int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  WriteV(level, format, args);
  va_end(args);
  return 0;
}

int LogWriter::WriteV(int level, const char* format, va_list args) {
  if (level < minLevel_) return 0;
  std::lock_guard lock(mutex_);
  std::time_t now = clock_();
  std::tm parts = LocalTime(now);
  if (parts.tm_yday != dayOfYear_) file_.reset();
  // A file that cannot be reopened loses the line rather than failing later.
  if (!file_ && !OpenLocked(now)) return 0;

  char stamp[64];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &parts);
  std::fprintf(file_.get(), level == kLogError ? "%s [Error] " : "%s ", stamp);
  std::string line = FormatLine(format, args);
  std::fwrite(line.data(), 1, line.size(), file_.get());
  if (minLevel_ == kLogDebug) std::fflush(file_.get());
  return 0;
}

void LogWriter::Close() {
  std::lock_guard lock(mutex_);
  file_.reset();
}

}  // namespace corvane
