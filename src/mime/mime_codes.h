#pragma once

namespace corvane {

// The result codes the message model returns when loading or writing a
// message; the numbers are those of the protocol clients' result-code table.
enum MimeCode : int {
  kMimeOk = 0,
  kMimeFileOpenFailed = 27,     // an attachment file cannot be read
  kMimeMalformed = 42,          // the source holds no message at all
  kMimeSourceOpenFailed = 74,   // the message source cannot be opened
  kMimeSourceReadFailed = 77,   // reading the message source failed
  kMimeAttachFailed = 80,       // an attachment cannot be added
  kMimeTargetOpenFailed = 81,   // the data source to write into cannot be opened
  kMimeTargetWriteFailed = 83,  // writing into it came up short
};

}  // namespace corvane
