#pragma once

#include <string>
#include <string_view>

namespace corvane {

// The file name an attachment is saved and uploaded under, from its name as
// the message gives it (RFC 2047 words still encoded): the first 259 bytes,
// decoded for display in `targetCharset`, "/" and "\" written as "_" and
// control bytes left out, so that a name from a message neither leads out
// of the target directory nor carries a control byte into a command line;
// "_" for a name of no more than two dots.
std::string AttachmentFileName(std::string_view rawName, std::string_view targetCharset);

}  // namespace corvane
