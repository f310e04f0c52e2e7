#include "mime/mime_parser.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "base/ascii_text.h"
#include "base/limits.h"
#include "mime/attachment_content.h"
#include "mime/content_params.h"
#include "mime/encoded_words.h"
#include "mime/gmime_handle.h"
#include "mime/header_blocks.h"
#include "mime/part_decoder.h"
#include "mime/uuencoded_files.h"

namespace corvane {
namespace {

constexpr int kReadChunk = 64 * 1024;
// Multiparts nested deeper than this are hostile; their contents are left out.
constexpr int kMaxDepth = 64;

// The header value as the message has it, on one line: line breaks of the
// folding removed (the whitespace after them stays), and the blanks around
// the value trimmed.
std::string UnfoldedValue(const char* raw) {
  std::string value;
  for (const char* c = raw; c != nullptr && *c != '\0'; ++c) {
    if (*c != '\r' && *c != '\n') value += *c;
  }
  size_t begin = value.find_first_not_of(" \t");
  if (begin == std::string::npos) return {};
  return value.substr(begin, value.find_last_not_of(" \t") - begin + 1);
}

// The unfolded value of the first field `name` of a part, or empty.
std::string PartField(GMimeObject* part, const char* name) {
  GMimeHeaderList* list = g_mime_object_get_header_list(part);
  GMimeHeader* header = list ? g_mime_header_list_get_header(list, name) : nullptr;
  return header ? UnfoldedValue(g_mime_header_get_raw_value(header)) : std::string();
}

std::string Lowered(std::string text) {
  LowerAscii(text);
  return text;
}

// A name in the form a header carries it: an RFC 2231 name with a charset
// becomes one encoded word in that charset.
std::optional<std::string> HeaderFormName(std::optional<HeaderParameter> parameter) {
  if (!parameter || parameter->value.empty()) return std::nullopt;
  bool eightBit = std::any_of(parameter->value.begin(), parameter->value.end(),
                              [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
  std::string encoded;
  if (eightBit && !parameter->charset.empty() &&
      EncodeWords(parameter->value, parameter->charset, 'B', encoded) == kEncodeOk) {
    return encoded;
  }
  return std::move(parameter->value);
}

std::string DecodedContent(GMimePart* part) {
  GMimeHandle<GMimeStream> memory(g_mime_stream_mem_new());
  DecodePartContent(part, memory.get());
  GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(memory.get()));
  return std::string(reinterpret_cast<const char*>(bytes->data), bytes->len);
}

class PartWalker {
 public:
  explicit PartWalker(ParsedMessage& out) : out_(out) {}

  void Walk(GMimeObject* object, int depth) {
    if (object == nullptr || depth > kMaxDepth) return;
    if (GMIME_IS_MULTIPART(object)) {
      GMimeMultipart* multipart = GMIME_MULTIPART(object);
      int count = g_mime_multipart_get_count(multipart);
      for (int i = 0; i < count; ++i) Walk(g_mime_multipart_get_part(multipart, i), depth + 1);
    } else if (GMIME_IS_MESSAGE_PART(object)) {
      AddAttachment(object, "message/rfc822");
    } else if (GMIME_IS_PART(object)) {
      WalkLeaf(GMIME_PART(object));
    }
  }

 private:
  void WalkLeaf(GMimePart* part) {
    GMimeObject* object = GMIME_OBJECT(part);
    GMimeContentType* type = g_mime_object_get_content_type(object);
    std::string mediaType = Lowered(type ? g_mime_content_type_get_media_type(type) : "text");
    std::string subtype = Lowered(type ? g_mime_content_type_get_media_subtype(type) : "plain");
    std::string disposition =
        Lowered(std::string(FieldMainValue(PartField(object, "Content-Disposition"))));
    bool named = NameOf(object).has_value();
    if (mediaType == "text" && disposition != "attachment" && !named) {
      std::optional<BodyText>* body = subtype == "plain"  ? &out_.textBody
                                      : subtype == "html" ? &out_.htmlBody
                                                          : nullptr;
      if (body != nullptr && !body->has_value()) {
        std::string charset;
        if (auto parameter = FindHeaderParameter(PartField(object, "Content-Type"), "charset")) {
          charset = std::move(parameter->value);
        }
        std::string text = DecodedContent(part);
        if (subtype == "plain") AddUuencodedFiles(text);
        *body = BodyText{std::move(text), std::move(charset)};
        return;
      }
    }
    AddAttachment(object, mediaType + "/" + subtype);
  }

  static std::optional<std::string> NameOf(GMimeObject* object) {
    auto name =
        HeaderFormName(FindHeaderParameter(PartField(object, "Content-Disposition"), "filename"));
    if (!name)
      name = HeaderFormName(FindHeaderParameter(PartField(object, "Content-Type"), "name"));
    return name;
  }

  void AddAttachment(GMimeObject* object, std::string contentType) {
    if (out_.attachments.size() >= limits::kMaxAttachments) return;
    out_.attachments.push_back({NameOf(object), std::move(contentType), MakePartContent(object)});
  }

  void AddUuencodedFiles(std::string& text) {
    const size_t room = limits::kMaxAttachments - out_.attachments.size();
    for (UuencodedFile& file : ExtractUuencodedFiles(text, room)) {
      out_.attachments.push_back({std::move(file.name), "application/octet-stream",
                                  MakeBytesContent(std::move(file.bytes))});
    }
  }

  ParsedMessage& out_;
};

void AppendFields(GMimeObject* object, std::vector<std::pair<gint64, HeaderEntry>>& fields) {
  GMimeHeaderList* list = object ? g_mime_object_get_header_list(object) : nullptr;
  int count = list ? g_mime_header_list_get_count(list) : 0;
  for (int i = 0; i < count; ++i) {
    GMimeHeader* header = g_mime_header_list_get_header_at(list, i);
    std::string name = g_mime_header_get_name(header);
    HeaderFieldId id = HeaderFieldIdOfName(name);
    HeaderEntry entry;
    entry.id = id;
    entry.name = id == kFieldCustom ? name + ": " : HeaderFieldText(id);
    entry.data = UnfoldedValue(g_mime_header_get_raw_value(header));
    fields.emplace_back(g_mime_header_get_offset(header), std::move(entry));
  }
}

// The message's fields in the order they stand: the library keeps the
// Content-* fields with the top part, so the two lists are merged by offset.
std::vector<HeaderEntry> MessageFields(GMimeMessage* message) {
  std::vector<std::pair<gint64, HeaderEntry>> fields;
  AppendFields(GMIME_OBJECT(message), fields);
  AppendFields(g_mime_message_get_mime_part(message), fields);
  std::stable_sort(fields.begin(), fields.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<HeaderEntry> entries;
  entries.reserve(fields.size());
  for (auto& field : fields) entries.push_back(std::move(field.second));
  return entries;
}

GMimeHandle<GMimeMessage> Construct(GMimeStream* stream) {
  GMimeHandle<GMimeParser> parser(g_mime_parser_new_with_stream(stream));
  return GMimeHandle<GMimeMessage>(g_mime_parser_construct_message(parser.get(), nullptr));
}

struct ByteArrayUnref {
  void operator()(GByteArray* bytes) const { g_byte_array_unref(bytes); }
};
using ByteArrayHandle = std::unique_ptr<GByteArray, ByteArrayUnref>;

int ReadSource(DataSource& source, ByteArrayHandle& bytes) {
  if (source.Open(DataSource::kOpenRead) != 0) return kMimeSourceOpenFailed;
  bytes.reset(g_byte_array_new());
  guint used = 0;
  for (;;) {
    g_byte_array_set_size(bytes.get(), used + kReadChunk + 1);  // Read adds a NUL
    int n = source.Read(reinterpret_cast<char*>(bytes->data + used), kReadChunk);
    // The array's length is 32 bits: a larger message is refused, not wrapped.
    if (n < 0 || used > G_MAXUINT - 2 * (kReadChunk + 1)) {
      source.Close();
      return kMimeSourceReadFailed;
    }
    if (n == 0) break;
    used += static_cast<guint>(n);
  }
  g_byte_array_set_size(bytes.get(), used);
  source.Close();
  return used == 0 ? kMimeMalformed : kMimeOk;
}

}  // namespace

int ParseMessage(DataSource& source, ParsedMessage& out) {
  EnsureGMimeInitialised();
  out = ParsedMessage();
  ByteArrayHandle bytes;
  if (int result = ReadSource(source, bytes); result != kMimeOk) return result;
  CapHeaderBlocks(bytes.get());
  // The stream takes over the array.
  GMimeHandle<GMimeStream> stream(g_mime_stream_mem_new_with_byte_array(bytes.release()));

  GMimeHandle<GMimeMessage> message = Construct(stream.get());
  if (!message) {
    // Text that does not start with a header field: read it as a body
    // behind an empty header.
    GMimeHandle<GMimeStream> joined(g_mime_stream_cat_new());
    GMimeHandle<GMimeStream> blank(g_mime_stream_mem_new_with_buffer("\r\n", 2));
    g_mime_stream_reset(stream.get());
    g_mime_stream_cat_add_source(GMIME_STREAM_CAT(joined.get()), blank.get());
    g_mime_stream_cat_add_source(GMIME_STREAM_CAT(joined.get()), stream.get());
    message = Construct(joined.get());
    if (!message) return kMimeMalformed;
  }

  out.headers = MessageFields(message.get());
  PartWalker(out).Walk(g_mime_message_get_mime_part(message.get()), 0);

  for (const HeaderEntry& entry : out.headers) {
    if (entry.id != kFieldContentType) continue;
    if (auto charset = FindHeaderParameter(entry.data, "charset")) out.charset = charset->value;
    break;
  }
  if (out.charset.empty() && out.textBody) out.charset = out.textBody->charset;
  if (out.charset.empty() && out.htmlBody) out.charset = out.htmlBody->charset;
  return kMimeOk;
}

}  // namespace corvane
