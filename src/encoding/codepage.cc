#include "encoding/codepage.h"

#include <stdio.h>
#include <string.h>

#include "platform/holders.h"
#include "platform/text.h"

int32_t codepage = 0;
char from_codepage[20];

namespace {

struct CodePageLabel {
  const char* label;
  int number;
  const char* charset;
};

// Searched in this order; a line holding two labels is decided by the earlier
// row, and a label inside a longer word still counts.
constexpr CodePageLabel kLabels[] = {
    {"cp950", 1, "autodetect_BIG5"}, {"cp936", 2, "autodetect_GB"}, {"cp932", 3, "autodetect_jp"},
    {"cp949", 4, "autodetect_kr"},   {"cp866", 6, "KOI8-R"},         {"cp850", 7, "ISO-8859-1"},
};
constexpr int kDefaultCodePage = 5;
constexpr char kDefaultCharset[] = "autodetect_utf8";

}  // namespace

int CodePageType_from(const char* file) {
  UniqueFile f(fopen(file, "r"));
  if (!f) {
    puts("Open CodePage Error");
    return 0;
  }
  // Only the first 23 bytes of the first line are looked at.
  char line[26] = {};
  if (fgets(line, 24, f.get()) == nullptr) line[0] = '\0';
  f.reset();

  for (const CodePageLabel& l : kLabels) {
    if (strstr(line, l.label) != nullptr) {
      copy_bounded(from_codepage, l.charset);
      return l.number;
    }
  }
  copy_bounded(from_codepage, kDefaultCharset);
  return kDefaultCodePage;
}

int CodePageType() { return CodePageType_from("/etc/codepage"); }

int check_big5(unsigned char first, unsigned char second) {
  printf("[%x-%x]\n", first, second);
  // The symbol rows A1..A3 of Big5: punctuation and signs.
  const bool low_trail = second >= 0x40 && second <= 0x7E;
  const bool big5 = (first >= 0xA1 && first <= 0xA3 && low_trail) ||
                    ((first == 0xA1 || first == 0xA2) && second >= 0xA1 && second <= 0xFE) ||
                    (first == 0xA3 && second >= 0xA1 && second <= 0xBF);
  codepage = big5 ? 1 : kDefaultCodePage;
  return big5 ? 1 : 0;
}
