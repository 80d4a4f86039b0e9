// Charset conversion with autodetection on the iconv(3) API.
#ifndef MEDIAWALK_ENCODING_ICONV_STRING_H_
#define MEDIAWALK_ENCODING_ICONV_STRING_H_

#include <stddef.h>

// Converts [start, end) from fromcode to tocode into a buffer of exactly the
// converted length. fromcode is an iconv charset or one of "autodetect_utf8",
// "autodetect_BIG5", "autodetect_GB", "autodetect_jp", "autodetect_kr".
// *resultp is allocated (null) or reallocated (non-null); the caller frees it.
// A null resultp only measures. Returns 0, or -1 with errno set
// (EILSEQ, EINVAL, ENOMEM, or iconv's own).
int iconv_string(const char* tocode, const char* fromcode, const char* start, const char* end,
                 char** resultp);

// The same, also reporting the converted length in *lengthp (when non-null) on
// success. The result carries no terminator of its own: a caller that needs a
// C string converts its input's terminator along and checks that it arrived,
// since an incomplete multibyte tail is dropped silently.
int iconv_string_n(const char* tocode, const char* fromcode, const char* start, const char* end,
                   char** resultp, size_t* lengthp);

// The family-tried flags that keep the autodetect fallback from going round in
// circles. Exposed for tests.
enum IconvFamily {
  kIconvFamilyBig5 = 0,
  kIconvFamilyGb = 1,
  kIconvFamilyUtf8 = 2,
  kIconvFamilyJp = 3,
  kIconvFamilyKr = 4,
};
int iconv_family_tried(IconvFamily family);
void iconv_reset_family_tried();

#endif  // MEDIAWALK_ENCODING_ICONV_STRING_H_
