#pragma once

#include "mime/gmime_handle.h"
#include "mime/text_sink.h"

namespace corvane {

// A write-only MIME stream that hands each write to `sink`, so that a message
// can go where it is needed as the library writes it, without a copy held
// whole. A write the sink refuses fails, and with it the library's writing.
// `sink` must outlive the stream.
GMimeHandle<GMimeStream> NewSinkStream(const TextSink& sink);

}  // namespace corvane
