// Owns which characters beyond ASCII the operator's locale can show.
#include "output/characters.h"

#include <langinfo.h>
#include <locale.h>

#include <cstring>

namespace kelotlsctl {

namespace {

/// Asks for the locale of the environment without putting it in force: numbers and messages stay
/// those of the C locale. One that is not installed is the C locale too.
bool has_utf8() {
  const locale_t locale = ::newlocale(LC_CTYPE_MASK, "", nullptr);
  if (locale == nullptr) {
    return false;
  }
  const bool is_utf8 = std::strcmp(::nl_langinfo_l(CODESET, locale), "UTF-8") == 0;
  ::freelocale(locale);
  return is_utf8;
}

bool shows_utf8() {
  static const bool shows = has_utf8();
  return shows;
}

}  // namespace

const char* arrow() { return shows_utf8() ? "→" : "->"; }

const char* ellipsis() { return shows_utf8() ? "…" : "..."; }

}  // namespace kelotlsctl
