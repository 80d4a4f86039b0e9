// Charset conversion with autodetection on the iconv(3) API.
#ifndef MEDIAWALK_ENCODING_ICONV_STRING_H_
#define MEDIAWALK_ENCODING_ICONV_STRING_H_

// Converts [start, end) from fromcode to tocode into a buffer of exactly the
// converted length. fromcode is an iconv charset or one of "autodetect_utf8",
// "autodetect_BIG5", "autodetect_GB", "autodetect_jp", "autodetect_kr".
// *resultp is allocated (null) or reallocated (non-null); the caller frees it.
// A null resultp only measures. Returns 0, or -1 with errno set
// (EILSEQ, EINVAL, ENOMEM, or iconv's own).
int iconv_string(const char* tocode, const char* fromcode, const char* start, const char* end,
                 char** resultp);

#endif  // MEDIAWALK_ENCODING_ICONV_STRING_H_
