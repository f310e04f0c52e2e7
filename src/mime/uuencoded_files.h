#pragma once

#include <string>
#include <vector>

namespace corvane {

// A file that an older mailer put into a text body in uuencoded form.
struct UuencodedFile {
  std::string name;  // from the "begin" line, bytes as written
  std::string bytes;
};

// Takes the first `maxFiles` uuencoded files (a "begin <mode> <name>" line,
// the encoded lines, an "end" line) out of `text` and decodes them; the rest
// of the text stays. A "begin" line without an "end" line, or with lines
// between that cannot be uuencoded data, is left as text.
std::vector<UuencodedFile> ExtractUuencodedFiles(std::string& text, size_t maxFiles);

}  // namespace corvane
