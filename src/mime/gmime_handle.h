#pragma once

#include <gmime/gmime.h>

#include <memory>

namespace corvane {

// Initialises the MIME library once per process; safe to call from any
// thread, any number of times. Every use of a GMime object goes after it.
void EnsureGMimeInitialised();

struct GObjectUnref {
  void operator()(void* object) const {
    if (object != nullptr) g_object_unref(object);
  }
};

// Owns one reference to a GObject-based MIME object.
template <typename T>
using GMimeHandle = std::unique_ptr<T, GObjectUnref>;

// A new reference to `object`, for keeping it beyond its owner's life.
template <typename T>
GMimeHandle<T> RetainGMime(T* object) {
  if (object != nullptr) g_object_ref(object);
  return GMimeHandle<T>(object);
}

struct FormatOptionsFree {
  void operator()(GMimeFormatOptions* options) const { g_mime_format_options_free(options); }
};
using FormatOptionsHandle = std::unique_ptr<GMimeFormatOptions, FormatOptionsFree>;

struct GErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
using GErrorHandle = std::unique_ptr<GError, GErrorFree>;

struct GFree {
  void operator()(void* memory) const { g_free(memory); }
};
// A text the library allocated with g_malloc.
using GCharHandle = std::unique_ptr<char, GFree>;

}  // namespace corvane
