#include "mime/charset_converter.h"

#include <unicode/translit.h>
#include <unicode/ucnv.h>
#include <unicode/unistr.h>

#include <memory>
#include <mutex>

#include "base/ascii_text.h"

namespace corvane {
namespace {

constexpr uint32_t kGbCodePage = 936;

// ICU's own names for the code pages. Charset names are never handed to ICU:
// its "gb2312" is a different table from code page 936.
const char* IcuConverterName(uint32_t codePage) {
  switch (codePage) {
    case 936:
      return "windows-936-2000";
    case 950:
      return "windows-950-2000";
    case 52936:
      return "HZ";
    case 65000:
      return "UTF-7";
    case 65001:
      return "UTF-8";
    default:
      return nullptr;
  }
}

struct ConverterClose {
  void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, ConverterClose>;

Converter OpenConverter(uint32_t codePage) {
  const char* name = IcuConverterName(codePage);
  if (name == nullptr) return nullptr;
  UErrorCode status = U_ZERO_ERROR;
  Converter converter(ucnv_open(name, &status));
  if (U_FAILURE(status)) return nullptr;
  return converter;
}

std::optional<std::u16string> ToUtf16(std::string_view text, uint32_t codePage) {
  Converter converter = OpenConverter(codePage);
  if (!converter) return std::nullopt;
  // No code page here yields more UTF-16 units than input bytes; the retry
  // only guards that assumption.
  std::u16string wide(text.size() + 1, u'\0');
  for (int attempt = 0; attempt < 2; ++attempt) {
    UErrorCode status = U_ZERO_ERROR;
    const int32_t length =
        ucnv_toUChars(converter.get(), wide.data(), static_cast<int32_t>(wide.size()), text.data(),
                      static_cast<int32_t>(text.size()), &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
      wide.assign(static_cast<size_t>(length) + 1, u'\0');
      ucnv_resetToUnicode(converter.get());
      continue;
    }
    if (U_FAILURE(status)) return std::nullopt;
    wide.resize(static_cast<size_t>(length));
    return wide;
  }
  return std::nullopt;
}

std::optional<std::string> FromUtf16(std::u16string_view wide, uint32_t codePage) {
  Converter converter = OpenConverter(codePage);
  if (!converter) return std::nullopt;
  // At most three bytes per UTF-16 unit in UTF-8, two in the GB code page.
  std::string bytes(wide.size() * 3 + 1, '\0');
  for (int attempt = 0; attempt < 2; ++attempt) {
    UErrorCode status = U_ZERO_ERROR;
    const int32_t length =
        ucnv_fromUChars(converter.get(), bytes.data(), static_cast<int32_t>(bytes.size()),
                        wide.data(), static_cast<int32_t>(wide.size()), &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
      bytes.assign(static_cast<size_t>(length) + 1, '\0');
      ucnv_resetFromUnicode(converter.get());
      continue;
    }
    if (U_FAILURE(status)) return std::nullopt;
    bytes.resize(static_cast<size_t>(length));
    return bytes;
  }
  return std::nullopt;
}

std::optional<std::string> ConvertCodePage(std::string_view text, uint32_t from, uint32_t to) {
  std::optional<std::u16string> wide = ToUtf16(UpToNul(text), from);
  if (!wide) return std::nullopt;
  return FromUtf16(*wide, to);
}

// Building the transliterator reads its rules and takes tens of milliseconds,
// so it is built once. A transliterator must not be used by two threads at
// once, so every call works on its own clone.
std::unique_ptr<icu::Transliterator> NewSimplifier() {
  static std::mutex lock;
  static const std::unique_ptr<icu::Transliterator> prototype = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Transliterator> made(
        icu::Transliterator::createInstance("Traditional-Simplified", UTRANS_FORWARD, status));
    if (U_FAILURE(status)) made.reset();
    return made;
  }();
  if (!prototype) return nullptr;
  std::lock_guard<std::mutex> guard(lock);
  return std::unique_ptr<icu::Transliterator>(prototype->clone());
}

}  // namespace

std::optional<std::string> ConvertToGb(std::string_view text, uint32_t codePage) {
  if (codePage == kGbCodePage) return std::nullopt;
  return ConvertCodePage(text, codePage, kGbCodePage);
}

std::string TraditionalToSimplified(std::string_view gbText) {
  gbText = UpToNul(gbText);
  std::unique_ptr<icu::Transliterator> simplifier = NewSimplifier();
  std::optional<std::u16string> wide = ToUtf16(gbText, kGbCodePage);
  if (!simplifier || !wide) return std::string(gbText);
  icu::UnicodeString mapped(wide->data(), static_cast<int32_t>(wide->size()));
  simplifier->transliterate(mapped);
  std::optional<std::string> simplified = FromUtf16(
      std::u16string_view(mapped.getBuffer(), static_cast<size_t>(mapped.length())), kGbCodePage);
  return simplified ? *simplified : std::string(gbText);
}

std::optional<std::string> ConvertCharset(std::string_view from, std::string_view to,
                                          std::string_view text) {
  if (SameText(from, to)) return std::nullopt;
  const bool toGb = SameText(to, "gb2312");
  if (toGb && SameText(from, "utf-8")) return ConvertCodePage(text, 65001, kGbCodePage);
  if (SameText(from, "gb2312") && SameText(to, "utf-8")) {
    return ConvertCodePage(text, kGbCodePage, 65001);
  }
  if (toGb && SameText(from, "big5")) {
    std::optional<std::string> gb = ConvertToGb(text, 950);
    if (!gb) return std::nullopt;
    return TraditionalToSimplified(*gb);
  }
  if (toGb && SameText(from, "hz-gb-2312")) return ConvertToGb(text, 52936);
  if (toGb && SameText(from, "utf-7")) return ConvertToGb(text, 65000);
  return std::nullopt;
}

}  // namespace corvane
