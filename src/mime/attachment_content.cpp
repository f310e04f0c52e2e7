#include "mime/attachment_content.h"

#include <fcntl.h>

#include <fstream>
#include <utility>

#include "mime/part_decoder.h"

namespace corvane {
namespace {

class PartContent : public AttachmentContent {
 public:
  explicit PartContent(GMimeObject* part) : part_(RetainGMime(part)) {}

  int64_t SaveTo(const std::string& path) const override {
    GError* rawError = nullptr;
    GMimeHandle<GMimeStream> file(
        g_mime_stream_fs_open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644, &rawError));
    GErrorHandle error(rawError);
    if (!file) return -1;
    bool written = true;
    if (GMIME_IS_MESSAGE_PART(part_.get())) {
      GMimeMessage* message = g_mime_message_part_get_message(GMIME_MESSAGE_PART(part_.get()));
      if (message != nullptr) {
        // Messages travel with CRLF line ends; write the forwarded one so.
        FormatOptionsHandle options(g_mime_format_options_new());
        g_mime_format_options_set_newline_format(options.get(), GMIME_NEWLINE_FORMAT_DOS);
        written =
            g_mime_object_write_to_stream(GMIME_OBJECT(message), options.get(), file.get()) >= 0;
      }
    } else if (GMIME_IS_PART(part_.get())) {
      written = DecodePartContent(GMIME_PART(part_.get()), file.get());
    }
    if (!written || g_mime_stream_flush(file.get()) != 0) return -1;
    gint64 size = g_mime_stream_tell(file.get());
    if (g_mime_stream_close(file.get()) != 0) return -1;
    return size;
  }

 private:
  GMimeHandle<GMimeObject> part_;
};

class BytesContent : public AttachmentContent {
 public:
  explicit BytesContent(std::string bytes) : bytes_(std::move(bytes)) {}

  int64_t SaveTo(const std::string& path) const override {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes_.data(), static_cast<std::streamsize>(bytes_.size()));
    file.close();
    return file ? static_cast<int64_t>(bytes_.size()) : -1;
  }

 private:
  std::string bytes_;
};

}  // namespace

std::unique_ptr<AttachmentContent> MakePartContent(GMimeObject* part) {
  return std::make_unique<PartContent>(part);
}

std::unique_ptr<AttachmentContent> MakeBytesContent(std::string bytes) {
  return std::make_unique<BytesContent>(std::move(bytes));
}

}  // namespace corvane
