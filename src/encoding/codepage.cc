#include "encoding/codepage.h"

#include <stdio.h>
#include <string.h>

#include "encoding/codepage_label.h"
#include "platform/text.h"

int32_t codepage = 0;
char from_codepage[20];

int CodePageType_from(const char* file) {
  char line[kCodePageLineSize];
  if (!read_codepage_line(file, line)) {
    puts("Open CodePage Error");
    return 0;
  }
  if (const CodePageLabel* l = codepage_label_in(line)) {
    copy_bounded(from_codepage, l->charset);
    return l->number;
  }
  copy_bounded(from_codepage, kDefaultCodePageCharset);
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
