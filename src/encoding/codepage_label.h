// Reading the language label of /etc/codepage. Header only and free of the
// scanner's globals, so that the charset detector tool reads the setting with
// the very same code as the scanner does.
#ifndef MEDIAWALK_ENCODING_CODEPAGE_LABEL_H_
#define MEDIAWALK_ENCODING_CODEPAGE_LABEL_H_

#include <stdio.h>
#include <string.h>

#include "platform/holders.h"

struct CodePageLabel {
  const char* label;
  int number;
  const char* charset;  // source charset name for iconv_string
};

// Searched in this order; a line holding two labels is decided by the earlier
// row, and a label inside a longer word still counts.
inline constexpr CodePageLabel kCodePageLabels[] = {
    {"cp950", 1, "autodetect_BIG5"}, {"cp936", 2, "autodetect_GB"}, {"cp932", 3, "autodetect_jp"},
    {"cp949", 4, "autodetect_kr"},   {"cp866", 6, "KOI8-R"},         {"cp850", 7, "ISO-8859-1"},
};
inline constexpr int kDefaultCodePage = 5;
inline constexpr char kDefaultCodePageCharset[] = "autodetect_utf8";
// Only the first 23 bytes of the first line are looked at.
inline constexpr int kCodePageLineRead = 24;
inline constexpr size_t kCodePageLineSize = 26;

// Reads the start of file's first line into line[kCodePageLineSize] (empty
// when the file is empty). Returns false when the file cannot be opened.
inline bool read_codepage_line(const char* file, char* line) {
  memset(line, 0, kCodePageLineSize);
  UniqueFile f(fopen(file, "r"));
  if (!f) return false;
  if (fgets(line, kCodePageLineRead, f.get()) == nullptr) line[0] = '\0';
  return true;
}

// The label the line selects, or nullptr for none (the default codepage).
inline const CodePageLabel* codepage_label_in(const char* line) {
  for (const CodePageLabel& l : kCodePageLabels)
    if (strstr(line, l.label) != nullptr) return &l;
  return nullptr;
}

#endif  // MEDIAWALK_ENCODING_CODEPAGE_LABEL_H_
