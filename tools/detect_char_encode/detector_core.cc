#include "detector_core.h"

#include <string.h>
#include <strings.h>

#include "encoding/codepage_label.h"

namespace {

// The detection library's names, and the spellings the tag reader compares.
// Names not in this table are given as the library gives them.
const struct {
  const char* library_name;
  const char* answer;
} kSpellings[] = {
    {"WINDOWS-1251", "windows-1251"}, {"IBM866", "IBM866"},     {"MAC-CYRILLIC", "x-mac-cyrillic"},
    {"WINDOWS-1252", "windows-1252"}, {"KOI8-R", "KOI8-R"},     {"GB18030", "gb18030"},
    {"BIG5", "Big5"},                 {"IBM855", "IBM855"},     {"EUC-TW", "x-euc-tw"},
    {"ISO-8859-7", "ISO-8859-7"},
};

const char* answer_for(const char* library_name) {
  for (const auto& s : kSpellings)
    if (strcasecmp(library_name, s.library_name) == 0) return s.answer;
  return library_name;
}

// Charsets whose characters take more than one byte. The library names these
// only once their multi-byte sequences fit; any other answer names a
// single-byte charset, which a few double-byte characters are easily taken for.
bool multi_byte(const char* library_name) {
  static const char* const kNames[] = {"UTF-8",  "GB18030", "BIG5",       "EUC-TW",      "SHIFT_JIS",   "EUC-JP",
                                       "EUC-KR", "UHC",     "HZ-GB-2312", "ISO-2022-JP", "ISO-2022-CN", "ISO-2022-KR"};
  for (const char* n : kNames)
    if (strcasecmp(library_name, n) == 0) return true;
  return strncasecmp(library_name, "UTF-", 4) == 0 || strncasecmp(library_name, "X-ISO-10646", 11) == 0;
}

// The double-byte charset of a language setting, and the part of it that
// holds the language's common characters: a sample made only of those (and
// ASCII) is taken to be in that charset when the library is not sure. Rare
// characters are left out on purpose: a Western text with accents, read as
// double-byte, lands in the rare rows of most of these charsets.
struct DoubleByte {
  int codepage;              // the label's codepage number
  const char* library_name;  // spelled through answer_for
  bool (*common)(unsigned char lead, unsigned char trail);
};

bool high(unsigned char b) { return b >= 0xA1 && b <= 0xFE; }

// GB2312's rows within GB18030: symbols A1-A9, hanzi B0-F7, both bytes A1-FE.
bool gb_common(unsigned char lead, unsigned char trail) {
  return ((lead >= 0xA1 && lead <= 0xA9) || (lead >= 0xB0 && lead <= 0xF7)) && high(trail);
}

// Big5's frequently used characters, A440-C67E.
bool big5_common(unsigned char lead, unsigned char trail) {
  const bool trail_ok = (trail >= 0x40 && trail <= 0x7E) || high(trail);
  return trail_ok && ((lead >= 0xA4 && lead <= 0xC5) || (lead == 0xC6 && trail <= 0x7E));
}

// Shift_JIS punctuation (8140-81AC), kana (829F-82F1, 8340-8396) and the
// first level of kanji (889F-9872).
bool sjis_common(unsigned char lead, unsigned char trail) {
  const unsigned code = lead << 8 | trail;
  if (trail < 0x40 || trail == 0x7F || trail > 0xFC) return false;
  return (code >= 0x8140 && code <= 0x81AC) || (code >= 0x829F && code <= 0x82F1) ||
         (code >= 0x8340 && code <= 0x8396) || (code >= 0x889F && code <= 0x9872);
}

// The hangul syllables of KS X 1001 within UHC, B0A1-C8FE.
bool uhc_common(unsigned char lead, unsigned char trail) { return lead >= 0xB0 && lead <= 0xC8 && high(trail); }

const DoubleByte kDoubleByte[] = {
    {2, "GB18030", gb_common},
    {1, "BIG5", big5_common},
    {3, "SHIFT_JIS", sjis_common},
    {4, "UHC", uhc_common},
};

// True when the sample holds bytes above 0x7F and every one of them belongs
// to a common character of the charset.
bool all_common(const unsigned char* s, const DoubleByte& charset) {
  bool any = false;
  while (*s != 0) {
    if (*s < 0x80) {
      ++s;
      continue;
    }
    if (s[1] == 0 || !charset.common(s[0], s[1])) return false;
    any = true;
    s += 2;
  }
  return any;
}

// True when the sample is well-formed UTF-8. The library may name UTF-8 for a
// short sample that is not, and such an answer is no more sure than a guess.
bool valid_utf8(const unsigned char* s) {
  while (*s != 0) {
    int more;  // continuation bytes after the lead
    if (*s < 0x80)
      more = 0;
    else if (*s >= 0xC2 && *s <= 0xDF)
      more = 1;
    else if (*s >= 0xE0 && *s <= 0xEF)
      more = 2;
    else if (*s >= 0xF0 && *s <= 0xF4)
      more = 3;
    else
      return false;
    const unsigned char lead = *s++;
    for (int i = 0; i < more; ++i, ++s) {
      unsigned char lo = 0x80, hi = 0xBF;
      if (i == 0 && lead == 0xE0) lo = 0xA0;  // no overlong forms
      if (i == 0 && lead == 0xED) hi = 0x9F;  // no surrogates
      if (i == 0 && lead == 0xF0) lo = 0x90;
      if (i == 0 && lead == 0xF4) hi = 0x8F;  // nothing past U+10FFFF
      if (*s < lo || *s > hi) return false;
    }
  }
  return true;
}

int preferred_charset(const char* codepage_file) {
  char line[kCodePageLineSize];
  if (!read_codepage_line(codepage_file, line)) return -1;
  const CodePageLabel* label = codepage_label_in(line);
  for (size_t i = 0; label != nullptr && i < sizeof kDoubleByte / sizeof kDoubleByte[0]; ++i)
    if (kDoubleByte[i].codepage == label->number) return static_cast<int>(i);
  return -1;
}

}  // namespace

CharsetDetector::CharsetDetector(const char* codepage_file)
    : library_(uchardet_new()), preferred_(preferred_charset(codepage_file)) {}

CharsetDetector::~CharsetDetector() {
  if (library_ != nullptr) uchardet_delete(library_);
}

const char* CharsetDetector::detect(const char* sample) {
  if (sample[0] == '\0' || library_ == nullptr) return "";
  uchardet_reset(library_);
  if (uchardet_handle_data(library_, sample, strlen(sample)) != 0) return "";
  uchardet_data_end(library_);
  const char* name = uchardet_get_charset(library_);
  if (name == nullptr) name = "";
  const auto* bytes = reinterpret_cast<const unsigned char*>(sample);
  // A multi-byte answer stands, unless it is UTF-8 for bytes that are not.
  const bool sure = name[0] != '\0' && multi_byte(name) &&
                    (strcasecmp(name, "UTF-8") != 0 || valid_utf8(bytes));
  if (preferred_ >= 0 && !sure && all_common(bytes, kDoubleByte[preferred_]))
    name = kDoubleByte[preferred_].library_name;
  return answer_for(name);
}
