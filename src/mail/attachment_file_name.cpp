#include "mail/attachment_file_name.h"

#include "mail/header_display.h"

namespace corvane {
namespace {

constexpr size_t kMaxAttachmentName = 259;

}  // namespace

std::string AttachmentFileName(std::string_view rawName, std::string_view targetCharset) {
  std::string safe;
  for (char c : DecodeHeaderForDisplay(rawName.substr(0, kMaxAttachmentName), targetCharset)) {
    if (c == '/' || c == '\\') {
      safe += '_';
    } else if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) {
      safe += c;
    }
  }
  if (safe.find_first_not_of('.') == std::string::npos && safe.size() <= 2) return "_";
  return safe;
}

}  // namespace corvane
