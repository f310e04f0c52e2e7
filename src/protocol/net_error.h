#pragma once

namespace corvane {

// Result codes of the protocol clients and data sources: 0 is success, 1..151
// name one failure each, with a fixed English text that reaches logs and
// answers.
class CNetError {
 public:
  static constexpr int kCodeCount = 152;

  // The text of `code`; never fails. The table is constant, so concurrent
  // first calls need no lock.
  static const char* GetErrorString(int code);
};

}  // namespace corvane
