#include "mail/header_read_failures.h"

#include "base/process_log.h"
#include "protocol/net_error.h"

namespace corvane {

HeaderReadFailures::~HeaderReadFailures() {
  if (count_ > 1) {
    WriteLog(kLogError, "%s Load pop3 message error for %zu more messages\n", login_.c_str(),
             count_ - 1);
  }
}

void HeaderReadFailures::Add(int result) {
  if (count_++ > 0) return;
  WriteLog(kLogError, "%s Load pop3 message error: %s\n", login_.c_str(),
           CNetError::GetErrorString(result));
}

}  // namespace corvane
