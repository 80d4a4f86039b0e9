// The appliance's language setting, from /etc/codepage.
#ifndef MEDIAWALK_ENCODING_CODEPAGE_H_
#define MEDIAWALK_ENCODING_CODEPAGE_H_

#include <stdint.h>

extern int32_t codepage;       // codepage number 1..7
extern char from_codepage[20]; // source charset name for iconv_string

// Reads /etc/codepage. Returns the codepage number and writes from_codepage,
// or returns 0 ("Open CodePage Error") leaving from_codepage untouched.
int CodePageType();
// Same on an explicit file, for tests.
int CodePageType_from(const char* file);

// Big5 symbol-row test on a text's first two bytes: prints "[%x-%x]\n",
// sets codepage to 1 and returns 1 for Big5, else sets 5 and returns 0.
int check_big5(unsigned char first, unsigned char second);

#endif  // MEDIAWALK_ENCODING_CODEPAGE_H_
