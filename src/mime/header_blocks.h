#pragma once

#include <glib.h>

namespace corvane {

// Bounds every header the library will build, before it reads any: the
// message's own, the one after each line starting with "--" (each may open a
// part) and each embedded message's. The library keeps hundreds of bytes for
// each field and each parameter, however short, and grows its buffer for a
// long field in small steps. So each field is cut to kMaxFieldBytes (the mail
// operations read at most 4095 bytes of one), each header keeps its first
// kMaxHeaderFields fields, and past kMaxMessageHeaderFields fields or
// kMaxMessageHeaderBytes bytes kept in all of them, or past kMaxBoundaryLines
// lines starting with "--", the message is cut as if it ended there.
//
// A header ends at a blank line; the library skips a line in it that is no
// field and reads the fields after it. The body after a header is a header
// too when its Content-Type names "message" anywhere or, for a part of a
// message that names "digest", names no plain type and subtype (the library
// then takes a digest's default, an embedded message). Other bodies are left
// as they are. One pass, the array compacted in place.
void CapHeaderBlocks(GByteArray* bytes);

}  // namespace corvane
