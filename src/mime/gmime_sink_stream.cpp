#include "mime/gmime_sink_stream.h"

namespace corvane {
namespace {

struct SinkStream {
  GMimeStream parent;
  const TextSink* sink;
};

struct SinkStreamClass {
  GMimeStreamClass parent;
};

GType SinkStreamType();

SinkStream* AsSink(GMimeStream* stream) {
  return G_TYPE_CHECK_INSTANCE_CAST(stream, SinkStreamType(), SinkStream);
}

ssize_t SinkWrite(GMimeStream* stream, const char* buffer, size_t length) {
  if (length > 0 && !(*AsSink(stream)->sink)(std::string_view(buffer, length))) return -1;
  stream->position += static_cast<gint64>(length);
  return static_cast<ssize_t>(length);
}

ssize_t SinkRead(GMimeStream*, char*, size_t) {
  return -1;
}

int SinkNothingToDo(GMimeStream*) {
  return 0;
}

gboolean SinkEos(GMimeStream*) {
  return FALSE;
}

int SinkReset(GMimeStream*) {
  return -1;
}

gint64 SinkSeek(GMimeStream*, gint64, GMimeSeekWhence) {
  return -1;
}

gint64 SinkTell(GMimeStream* stream) {
  return stream->position;
}

gint64 SinkLength(GMimeStream*) {
  return -1;
}

GMimeStream* SinkSubstream(GMimeStream*, gint64, gint64) {
  return nullptr;
}

void SinkClassInit(gpointer klass, gpointer) {
  GMimeStreamClass* stream = GMIME_STREAM_CLASS(klass);
  stream->read = SinkRead;
  stream->write = SinkWrite;
  stream->flush = SinkNothingToDo;
  stream->close = SinkNothingToDo;
  stream->eos = SinkEos;
  stream->reset = SinkReset;
  stream->seek = SinkSeek;
  stream->tell = SinkTell;
  stream->length = SinkLength;
  stream->substream = SinkSubstream;
}

GType SinkStreamType() {
  static const GType type = g_type_register_static_simple(
      GMIME_TYPE_STREAM, "CorvaneSinkStream", sizeof(SinkStreamClass), SinkClassInit,
      sizeof(SinkStream), nullptr, static_cast<GTypeFlags>(0));
  return type;
}

}  // namespace

GMimeHandle<GMimeStream> NewSinkStream(const TextSink& sink) {
  EnsureGMimeInitialised();
  auto* stream = static_cast<SinkStream*>(g_object_new(SinkStreamType(), nullptr));
  g_mime_stream_construct(GMIME_STREAM(stream), 0, -1);
  stream->sink = &sink;
  return GMimeHandle<GMimeStream>(GMIME_STREAM(stream));
}

}  // namespace corvane
