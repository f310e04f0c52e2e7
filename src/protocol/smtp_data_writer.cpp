#include "protocol/smtp_data_writer.h"

#include <algorithm>

namespace corvane {
namespace {

// Bytes gathered before one send, so that a message of short lines does not
// cost a system call per line.
constexpr size_t kSendBatch = 64 * 1024;

}  // namespace

SmtpDataWriter::SmtpDataWriter(CNetClient& client) : client_(client) {
  batch_.reserve(kSendBatch * 2);
}

bool SmtpDataWriter::Add(std::string_view bytes) {
  while (!bytes.empty()) {
    const char c = bytes.front();
    if (c == '\r' || c == '\n') {
      if (c == '\r' || !afterCr_) batch_ += "\r\n";
      afterCr_ = c == '\r';
      atLineStart_ = true;
      lineLength_ = 0;
      bytes.remove_prefix(1);
      continue;
    }
    if (lineLimit_ > 0 && lineLength_ == lineLimit_) {
      batch_ += "\r\n";
      atLineStart_ = true;
      lineLength_ = 0;
    }
    if (atLineStart_ && c == '.') batch_ += '.';
    // A plain loop: find_first_of calls memchr once for every byte here.
    size_t run = 1;
    while (run < bytes.size() && bytes[run] != '\r' && bytes[run] != '\n') ++run;
    if (lineLimit_ > 0) run = std::min(run, lineLimit_ - lineLength_);
    batch_.append(bytes.data(), run);
    lineLength_ += run;
    bytes.remove_prefix(run);
    atLineStart_ = afterCr_ = false;
  }
  return batch_.size() < kSendBatch || Flush();
}

bool SmtpDataWriter::Flush() {
  bool sent = batch_.empty() || client_.Send(batch_.data(), static_cast<int>(batch_.size())) ==
                                    static_cast<int>(batch_.size());
  batch_.clear();
  return sent;
}

}  // namespace corvane
