#include "mime/mime_composer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "base/ascii_text.h"
#include "mime/encoded_words.h"
#include "mime/gmime_handle.h"
#include "mime/gmime_sink_stream.h"

namespace corvane {
namespace {

constexpr size_t kFoldWidth = 78;
constexpr int kWriteChunk = 1 << 20;

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

// The field name as it goes on the wire: stored names end in ':' (table) or
// in ": " (custom); a custom name given without its colon gets one.
std::string WireName(std::string_view stored) {
  std::string name;
  for (char c : stored) {
    if (c != '\r' && c != '\n' && c != '\0') name += c;
  }
  while (!name.empty() && IsBlank(name.back())) name.pop_back();
  if (name.empty() || name.back() != ':') name += ':';
  return name;
}

// Appends one physical header line, broken before whitespace wherever the
// line would pass the fold width; the first `keep` characters stay
// together.
void AppendFolded(std::string_view line, size_t keep, std::string& out) {
  size_t width = 0;
  size_t pieceBegin = 0;
  for (size_t i = 1; i <= line.size(); ++i) {
    bool boundary = i == line.size() || (i > keep && IsBlank(line[i]) && !IsBlank(line[i - 1]));
    if (!boundary) continue;
    std::string_view piece = line.substr(pieceBegin, i - pieceBegin);
    if (width > 0 && width + piece.size() > kFoldWidth) {
      out += "\r\n";
      width = 0;
    }
    out += piece;
    width += piece.size();
    pieceBegin = i;
  }
  out += "\r\n";
}

void AppendField(std::string_view storedName, std::string_view value, std::string& out) {
  std::string name = WireName(storedName);
  const std::string folded = FoldedHeaderValue(value);
  std::string_view text = folded;
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  // The first line goes with the name; every later one starts with a blank.
  size_t end = text.find("\r\n");
  std::string first = name;
  if (!text.empty()) first += ' ';
  first += text.substr(0, end);
  AppendFolded(first, name.size() + 1, out);
  while (end != std::string_view::npos) {
    size_t begin = end + 2;
    end = text.find("\r\n", begin);
    AppendFolded(text.substr(begin, end - begin), 1, out);
  }
}

std::string DomainOf(const std::string* from) {
  if (from != nullptr) {
    size_t at = from->find('@');
    if (at != std::string::npos) {
      size_t end = at + 1;
      while (end < from->size() &&
             (g_ascii_isalnum((*from)[end]) || (*from)[end] == '.' || (*from)[end] == '-')) {
        ++end;
      }
      if (end > at + 1) return from->substr(at + 1, end - at - 1);
    }
  }
  return "localhost";
}

std::string HeaderBlock(const MailMessage& message) {
  std::string out;
  for (const HeaderEntry& entry : message.Headers()) {
    // The MIME structure below writes these itself.
    if (entry.id == kFieldContentType) continue;
    std::string name = WireName(entry.name);
    if (SameText(name, "Content-Transfer-Encoding:")) continue;
    AppendField(entry.name, entry.data, out);
  }
  if (message.CountHeaders(kFieldDate) == 0) {
    std::unique_ptr<GDateTime, decltype(&g_date_time_unref)> now(g_date_time_new_now_local(),
                                                                 &g_date_time_unref);
    GCharHandle date(g_mime_utils_header_format_date(now.get()));
    AppendField("Date:", date.get(), out);
  }
  if (message.CountHeaders(kFieldMessageId) == 0) {
    std::string domain = DomainOf(message.HeaderValue(kFieldFrom, 0));
    GCharHandle id(g_mime_utils_generate_message_id(domain.c_str()));
    std::string value = "<";
    value += id.get();
    value += '>';
    AppendField("Message-ID:", value, out);
  }
  if (message.CountHeaders(kFieldMimeVersion) == 0) AppendField("MIME-Version:", "1.0", out);
  return out;
}

std::string CanonicalLineEnds(const std::string& text) {
  std::string out;
  out.reserve(text.size() + text.size() / 32);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) out += '\r';
    out += text[i];
  }
  return out;
}

GMimeHandle<GMimePart> TextPart(const MailMessage& message) {
  GMimeHandle<GMimePart> part(g_mime_part_new_with_type("text", "plain"));
  std::string text = message.TextBody() ? CanonicalLineEnds(message.TextBody()->text) : "";
  GMimeHandle<GMimeStream> content(g_mime_stream_mem_new_with_buffer(text.data(), text.size()));
  GMimeHandle<GMimeDataWrapper> wrapper(
      g_mime_data_wrapper_new_with_stream(content.get(), GMIME_CONTENT_ENCODING_DEFAULT));
  g_mime_part_set_content(part.get(), wrapper.get());
  GMimeContentEncoding encoding =
      g_mime_part_get_best_content_encoding(part.get(), GMIME_ENCODING_CONSTRAINT_7BIT);
  // An empty body leaves the library without a choice; it still needs a name.
  if (encoding == GMIME_CONTENT_ENCODING_DEFAULT) encoding = GMIME_CONTENT_ENCODING_7BIT;
  g_mime_part_set_content_encoding(part.get(), encoding);
  return part;
}

std::string BaseName(const std::string& path) {
  size_t slash = path.find_last_of("/\\");
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string AttachmentName(const std::string& path, const std::string& charset) {
  std::string name = BaseName(path);
  bool eightBit = std::any_of(name.begin(), name.end(),
                              [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
  if (!eightBit) return name;
  std::string encoded;
  if (EncodeWords(name, charset, 'B', encoded) == kEncodeOk) return encoded;
  // No usable charset to name: say so rather than pass bytes unlabelled.
  EncodeWords(name, "unknown-8bit", 'B', encoded);
  return encoded;
}

// A base64 part reading the file as the message is written; null when the
// file cannot be opened or is no regular file (a directory would fail only
// half-way through the message, a device might never end).
GMimeHandle<GMimePart> FilePart(const std::string& path, const std::string& charset) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status;
  if (fd < 0 || ::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    if (fd >= 0) ::close(fd);
    return nullptr;
  }
  GMimeHandle<GMimeStream> file(g_mime_stream_fs_new(fd));
  GMimeHandle<GMimePart> part(g_mime_part_new_with_type("application", "octet-stream"));
  GMimeHandle<GMimeDataWrapper> wrapper(
      g_mime_data_wrapper_new_with_stream(file.get(), GMIME_CONTENT_ENCODING_DEFAULT));
  g_mime_part_set_content(part.get(), wrapper.get());
  g_mime_part_set_content_encoding(part.get(), GMIME_CONTENT_ENCODING_BASE64);
  std::string name = FoldedHeaderValue(AttachmentName(path, charset));
  GMimeObject* object = GMIME_OBJECT(part.get());
  g_mime_object_set_content_type_parameter(object, "name", name.c_str());
  GMimeHandle<GMimeContentDisposition> disposition(g_mime_content_disposition_new());
  g_mime_content_disposition_set_disposition(disposition.get(), GMIME_DISPOSITION_ATTACHMENT);
  g_mime_object_set_content_disposition(object, disposition.get());
  g_mime_object_set_content_disposition_parameter(object, "filename", name.c_str());
  return part;
}

// The listed Content-Type when it is a text type, the text body's own.
const std::string* ListedTextType(const MailMessage& message) {
  const std::string* listed = message.HeaderValue(kFieldContentType, 0);
  if (listed == nullptr || !StartsWithText(*listed, "text/")) {
    return nullptr;
  }
  return listed;
}

std::string TextContentType(const MailMessage& message) {
  if (const std::string* listed = ListedTextType(message)) return *listed;
  if (message.Charset().empty()) return "text/plain";
  return "text/plain; charset=\"" + FoldedHeaderValue(message.Charset()) + "\"";
}

}  // namespace

std::string FoldedHeaderValue(std::string_view value) {
  // Header text may come from anyone (a decoded subject, a client's escape);
  // a break kept as it is would end the field there, and an empty line the
  // whole header block, so breaks survive only as folds.
  std::string text;
  text.reserve(value.size());
  for (char c : value) {
    if (c != '\0') text += c;
  }
  if (text.find_first_of("\r\n") == std::string::npos) return text;
  std::string out;
  for (size_t begin = 0; begin <= text.size();) {
    size_t end = std::min(text.find_first_of("\r\n", begin), text.size());
    std::string_view line = std::string_view(text).substr(begin, end - begin);
    if (std::any_of(line.begin(), line.end(), [](char c) { return !IsBlank(c); })) {
      if (!out.empty()) out += IsBlank(line.front()) ? "\r\n" : "\r\n ";
      out += line;
    }
    begin = end + 1;
  }
  return out;
}

struct MessageComposition::Parts {
  // The header block the message starts with; a single text part's own
  // fields and the blank line are in it, a multipart writes its own.
  std::string headers;
  GMimeHandle<GMimeObject> body;
  bool multipart = false;
};

MessageComposition::MessageComposition() = default;
MessageComposition::~MessageComposition() = default;

int MessageComposition::Prepare(const MailMessage& message) {
  EnsureGMimeInitialised();
  auto parts = std::make_unique<Parts>();
  parts->headers = HeaderBlock(message);
  GMimeHandle<GMimePart> text = TextPart(message);

  if (message.AttachmentFiles().empty()) {
    AppendField("Content-Type:", TextContentType(message), parts->headers);
    AppendField("Content-Transfer-Encoding:",
                g_mime_content_encoding_to_string(g_mime_part_get_content_encoding(text.get())),
                parts->headers);
    parts->headers += "\r\n";
    parts->body.reset(GMIME_OBJECT(text.release()));
  } else {
    if (const std::string* listed = ListedTextType(message)) {
      GMimeHandle<GMimeContentType> type(
          g_mime_content_type_parse(nullptr, FoldedHeaderValue(*listed).c_str()));
      if (type) g_mime_object_set_content_type(GMIME_OBJECT(text.get()), type.get());
    }
    if (!message.Charset().empty()) {
      g_mime_object_set_content_type_parameter(GMIME_OBJECT(text.get()), "charset",
                                               FoldedHeaderValue(message.Charset()).c_str());
    }
    GMimeHandle<GMimeMultipart> mixed(g_mime_multipart_new_with_subtype("mixed"));
    g_mime_multipart_add(mixed.get(), GMIME_OBJECT(text.get()));
    for (const std::string& path : message.AttachmentFiles()) {
      GMimeHandle<GMimePart> file = FilePart(path, message.Charset());
      if (!file) return kMimeFileOpenFailed;
      g_mime_multipart_add(mixed.get(), GMIME_OBJECT(file.get()));
    }
    parts->body.reset(GMIME_OBJECT(mixed.release()));
    parts->multipart = true;
  }
  parts_ = std::move(parts);
  return kMimeOk;
}

int MessageComposition::WriteTo(const TextSink& sink) const {
  if (!parts_) return kMimeFileOpenFailed;
  bool refused = false;
  char last[2] = {'\0', '\0'};
  const TextSink tracking = [&](std::string_view bytes) {
    if (!sink(bytes)) {
      refused = true;
      return false;
    }
    if (bytes.size() >= 2) {
      last[0] = bytes[bytes.size() - 2];
    } else {
      last[0] = last[1];
    }
    last[1] = bytes.back();
    return true;
  };
  GMimeHandle<GMimeStream> out = NewSinkStream(tracking);
  FormatOptionsHandle options(g_mime_format_options_new());
  g_mime_format_options_set_newline_format(options.get(), GMIME_NEWLINE_FORMAT_DOS);
  GMimeObject* body = parts_->body.get();
  bool written =
      g_mime_stream_write(out.get(), parts_->headers.data(), parts_->headers.size()) >= 0 &&
      (parts_->multipart
           ? g_mime_object_write_to_stream(body, options.get(), out.get())
           : g_mime_object_write_content_to_stream(body, options.get(), out.get())) >= 0 &&
      g_mime_stream_flush(out.get()) == 0;
  // The library lets a failed write pass when its encoding filters flush
  // (the end of a base64 attachment): a refusal anywhere fails the message.
  written = written && !refused;
  // The last line ends like every other.
  if (written && (last[0] != '\r' || last[1] != '\n')) written = tracking("\r\n");
  if (written) return kMimeOk;
  // Not the sink: a file that opened but could not be read.
  return refused ? kMimeTargetWriteFailed : kMimeFileOpenFailed;
}

int ComposeMessage(const MailMessage& message, DataSource& target) {
  MessageComposition composition;
  int result = composition.Prepare(message);
  if (result != kMimeOk) return result;
  if (target.Open(DataSource::kOpenWrite) != 0) return kMimeTargetOpenFailed;
  result = composition.WriteTo([&target](std::string_view bytes) {
    while (!bytes.empty()) {
      int n = static_cast<int>(std::min<size_t>(bytes.size(), kWriteChunk));
      if (target.Write(bytes.data(), n) != n) return false;
      bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
  });
  if (target.Close() != 0 && result == kMimeOk) result = kMimeTargetWriteFailed;
  return result;
}

}  // namespace corvane
