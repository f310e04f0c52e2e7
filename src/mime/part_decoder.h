#pragma once

#include "mime/gmime_handle.h"

namespace corvane {

// Writes the content of `part` into `out` with its transfer encoding undone.
// Base64 whose last group lost its padding still gives every byte it
// carries. False when the output cannot be written.
bool DecodePartContent(GMimePart* part, GMimeStream* out);

}  // namespace corvane
