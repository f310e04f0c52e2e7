#include "mime/default_charset.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>

namespace corvane {
namespace {

struct LanguageCodePage {
  std::string_view language;
  std::string_view charset;
};

// Languages by the ANSI code page Windows gives their locales. Chinese,
// Serbian and the languages written in either script are decided apart.
constexpr std::array<LanguageCodePage, 72> kLanguages = {{
    {"cs", "cp1250"},  {"hr", "cp1250"}, {"hu", "cp1250"}, {"pl", "cp1250"}, {"ro", "cp1250"},
    {"sk", "cp1250"},  {"sl", "cp1250"}, {"sq", "cp1250"}, {"bs", "cp1250"}, {"ru", "cp1251"},
    {"uk", "cp1251"},  {"bg", "cp1251"}, {"be", "cp1251"}, {"mk", "cp1251"}, {"kk", "cp1251"},
    {"ky", "cp1251"},  {"tt", "cp1251"}, {"mn", "cp1251"}, {"ba", "cp1251"}, {"tg", "cp1251"},
    {"en", "cp1252"},  {"fr", "cp1252"}, {"de", "cp1252"}, {"es", "cp1252"}, {"it", "cp1252"},
    {"pt", "cp1252"},  {"nl", "cp1252"}, {"da", "cp1252"}, {"sv", "cp1252"}, {"nb", "cp1252"},
    {"nn", "cp1252"},  {"no", "cp1252"}, {"fi", "cp1252"}, {"is", "cp1252"}, {"ca", "cp1252"},
    {"eu", "cp1252"},  {"gl", "cp1252"}, {"af", "cp1252"}, {"id", "cp1252"}, {"ms", "cp1252"},
    {"sw", "cp1252"},  {"fo", "cp1252"}, {"ga", "cp1252"}, {"gd", "cp1252"}, {"cy", "cp1252"},
    {"lb", "cp1252"},  {"fy", "cp1252"}, {"rm", "cp1252"}, {"br", "cp1252"}, {"oc", "cp1252"},
    {"fil", "cp1252"}, {"zu", "cp1252"}, {"xh", "cp1252"}, {"el", "cp1253"}, {"tr", "cp1254"},
    {"az", "cp1254"},  {"uz", "cp1254"}, {"he", "cp1255"}, {"iw", "cp1255"}, {"yi", "cp1255"},
    {"ar", "cp1256"},  {"fa", "cp1256"}, {"ur", "cp1256"}, {"ug", "cp1256"}, {"et", "cp1257"},
    {"lv", "cp1257"},  {"lt", "cp1257"}, {"vi", "cp1258"}, {"th", "cp874"},  {"ja", "cp932"},
    {"ko", "cp949"},   {"zh", "cp936"},
}};

}  // namespace

std::string DefaultCharsetForLocale(std::string_view locale) {
  const size_t at = locale.find('@');
  const std::string_view modifier = at == std::string_view::npos ? "" : locale.substr(at + 1);
  locale = locale.substr(0, std::min(at, locale.find('.')));
  const size_t underscore = locale.find('_');
  const std::string_view language = locale.substr(0, underscore);
  const std::string_view territory =
      underscore == std::string_view::npos ? "" : locale.substr(underscore + 1);

  if (language == "zh" && (territory == "TW" || territory == "HK" || territory == "MO")) {
    return "cp950";
  }
  if (language == "sr") return modifier == "latin" ? "cp1250" : "cp1251";
  if ((language == "uz" || language == "az") && modifier == "cyrillic") return "cp1251";
  for (const LanguageCodePage& row : kLanguages) {
    if (row.language == language) return std::string(row.charset);
  }
  return "us-ascii";
}

std::string DefaultCharset() {
  for (const char* variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* value = std::getenv(variable);
    if (value != nullptr && *value != '\0') return DefaultCharsetForLocale(value);
  }
  return "us-ascii";
}

}  // namespace corvane
