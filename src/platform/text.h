// Byte-bounded text helpers. Every fixed buffer of the scanner is filled
// through these, so a long value is cut at the buffer's bound, never past it.
#ifndef MEDIAWALK_PLATFORM_TEXT_H_
#define MEDIAWALK_PLATFORM_TEXT_H_

#include <stddef.h>
#include <string.h>

// Copies src into dst[cap], cut at cap-1 bytes, always terminated.
// Returns false if src was cut.
inline bool copy_bounded(char* dst, size_t cap, const char* src) {
  if (cap == 0) return false;
  const size_t len = strnlen(src, cap);
  const size_t n = len < cap ? len : cap - 1;
  memcpy(dst, src, n);
  dst[n] = '\0';
  return n == len;
}

template <size_t N>
bool copy_bounded(char (&dst)[N], const char* src) {
  return copy_bounded(dst, N, src);
}

#endif  // MEDIAWALK_PLATFORM_TEXT_H_
