#include "encoding/iconv_string.h"

#include <errno.h>
#include <iconv.h>
#include <stdlib.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "platform/holders.h"

namespace {

// Raised when a family is entered so that its neighbours do not send the
// input back to it. Only Big5 and GB are ever raised; the others are tested
// but left alone, and all five are cleared once a conversion completes.
int family_tried[5];

constexpr size_t kScratchSize = 4096;
constexpr size_t kFailed = static_cast<size_t>(-1);

// The iconv descriptor of a pair of charsets, in its initial state. Every
// tag text is converted, some through several tries, and opening a
// descriptor costs more than converting a title, so each pair is opened once
// and reset before each use, which leaves it as a fresh one would be. A pair
// iconv does not know (the autodetect names) is remembered too, with the
// errno its open gave. The pairs are the few the charset names make, and
// are closed when the process ends.
struct CachedConverter {
  std::string to, from;
  iconv_t cd;
  int open_errno;
};

struct ConverterCache : NoCopy {
  std::vector<CachedConverter> entries;
  ~ConverterCache() {
    for (const CachedConverter& c : entries)
      if (c.cd != iconv_t(-1)) iconv_close(c.cd);
  }
};

struct Converter : NoCopy {
  iconv_t cd;
  Converter(const char* to, const char* from) {
    static ConverterCache cache;
    for (const CachedConverter& c : cache.entries) {
      if (c.to == to && c.from == from) {
        cd = c.cd;
        if (ok()) {
          iconv(cd, nullptr, nullptr, nullptr, nullptr);
        } else {
          errno = c.open_errno;
        }
        return;
      }
    }
    cd = iconv_open(to, from);
    // Only an unknown pair is a lasting answer; running out of memory or
    // descriptors is not.
    if (ok() || errno == EINVAL) cache.entries.push_back({to, from, cd, ok() ? 0 : errno});
  }
  bool ok() const { return cd != iconv_t(-1); }
};

struct Family {
  const char* name;
  int raises;  // index of the flag raised on entry, -1 for none
  const char* own[6];
  size_t own_count;
  // Tried in order when the whole own list failed with EILSEQ, each only
  // while its flag is clear; the result of the last one is final.
  const char* cross[4];
  IconvFamily cross_flag[4];
};

// "HZ" and "ISO-2022-JP-1" are converted here where iconv lacks them (convert_hz,
// convert_iso2022jp1); another charset iconv lacks fails its try with EINVAL.
// "autodetect_JP" in the cross lists is not a name the dispatch knows: that
// try fails with EINVAL and ends the chain, which is how the fallback is meant
// to stop. ISO-8859-1 appears twice in the UTF-8 list on purpose.
const Family kFamilies[] = {
    {"autodetect_utf8",
     -1,
     {"UTF-8", "ISO-8859-1", "ISO-8859-1"},
     3,
     {"autodetect_BIG5", "autodetect_GB", "autodetect_JP", "autodetect_kr"},
     {kIconvFamilyBig5, kIconvFamilyGb, kIconvFamilyJp, kIconvFamilyKr}},
    {"autodetect_jp",
     -1,
     {"ISO-2022-JP-2", "EUC-JP", "CP932", "ISO-2022-JP", "ISO-2022-JP-1", "SHIFT_JIS"},
     6,
     {"autodetect_BIG5", "autodetect_GB", "autodetect_kr", "autodetect_utf8"},
     {kIconvFamilyBig5, kIconvFamilyGb, kIconvFamilyKr, kIconvFamilyUtf8}},
    {"autodetect_kr",
     -1,
     {"ISO-2022-KR", "CP949", "JOHAB", "EUC-KR"},
     4,
     {"autodetect_BIG5", "autodetect_GB", "autodetect_JP", "autodetect_utf8"},
     {kIconvFamilyBig5, kIconvFamilyGb, kIconvFamilyJp, kIconvFamilyUtf8}},
    {"autodetect_BIG5",
     kIconvFamilyBig5,
     {"BIG5", "CP950", "BIG5-HKSCS", "EUC-TW"},
     4,
     {"autodetect_GB", "autodetect_JP", "autodetect_kr", "autodetect_utf8"},
     {kIconvFamilyGb, kIconvFamilyJp, kIconvFamilyKr, kIconvFamilyUtf8}},
    {"autodetect_GB",
     kIconvFamilyGb,
     {"EUC-CN", "GBK", "HZ", "ISO-2022-CN", "ISO-2022-CN-EXT", "GB18030"},
     6,
     {"autodetect_BIG5", "autodetect_JP", "autodetect_kr", "autodetect_utf8"},
     {kIconvFamilyBig5, kIconvFamilyJp, kIconvFamilyKr, kIconvFamilyUtf8}},
};

int convert(const char* tocode, const char* fromcode, const char* start, const char* end,
            char** resultp, size_t* lengthp);

// HZ, which the lists name and the C library's iconv may lack, read as GNU libiconv reads it:
// "~{" switches to GB2312 in two 7-bit bytes (taken here through EUC-CN, their 8-bit form),
// "~}" back; outside, "~~" is a tilde, "~" and a newline are nothing, and any other byte is
// the code point of its value (libiconv lets bytes of 0x80 and above through there). Any
// other tilde pair, or a GB2312 pair that is not one, is invalid; an incomplete sequence at
// the end is dropped. The code points are then converted to tocode.
int convert_hz(const char* tocode, const char* start, const char* end, char** resultp, size_t* lengthp) {
  std::string points;  // UCS-4BE
  const auto put = [&points](uint32_t c) {
    const char b[4] = {char(c >> 24), char(c >> 16), char(c >> 8), char(c)};
    points.append(b, 4);
  };
  const unsigned char* s = reinterpret_cast<const unsigned char*>(start);
  const size_t n = static_cast<size_t>(end - start);
  bool gb = false;
  for (size_t i = 0; i < n;) {
    if (i + 1 >= n && (s[i] == '~' || gb)) break;  // incomplete
    if (s[i] == '~') {
      const unsigned char next = s[i + 1];
      if (!gb && next == '~') {
        put('~');
      } else if (!gb && (next == '{' || next == '\n')) {
        gb = next == '{';
      } else if (gb && next == '}') {
        gb = false;
      } else {
        errno = EILSEQ;
        return -1;
      }
      i += 2;
    } else if (!gb) {
      put(s[i++]);
    } else {
      if (s[i] < 0x21 || s[i] > 0x7E || s[i + 1] < 0x21 || s[i + 1] > 0x7E) {
        errno = EILSEQ;
        return -1;
      }
      Converter gb2312("UCS-4BE", "EUC-CN");
      char pair[2] = {char(s[i] | 0x80), char(s[i + 1] | 0x80)}, point[4];
      char* in = pair;
      char* out = point;
      size_t in_left = 2, out_left = 4;
      if (!gb2312.ok()) return -1;
      if (iconv(gb2312.cd, &in, &in_left, &out, &out_left) == kFailed || out_left != 0) {
        errno = EILSEQ;
        return -1;
      }
      points.append(point, 4);
      i += 2;
    }
  }
  return convert(tocode, "UCS-4BE", points.data(), points.data() + points.size(), resultp, lengthp);
}

// ISO-2022-JP-1, which the C library's iconv may lack: ISO-2022-JP-2 limited to the sets
// JP-1 switches to (ASCII, JIS X 0201 Roman, JIS X 0208, JIS X 0212). Another escape sequence
// is invalid, as in GNU libiconv; one cut off by the end is an incomplete tail.
int convert_iso2022jp1(const char* tocode, const char* start, const char* end, char** resultp,
                       size_t* lengthp) {
  static const char* const kEscapes[] = {"\x1b(B", "\x1b(J", "\x1b$@", "\x1b$B", "\x1b$(D"};
  for (const char* p = start; p < end; ++p) {
    if (*p != '\x1b') continue;
    const size_t left = static_cast<size_t>(end - p);
    bool known = false;
    for (const char* e : kEscapes) known = known || strncmp(p, e, left < strlen(e) ? left : strlen(e)) == 0;
    if (!known) {
      errno = EILSEQ;
      return -1;
    }
  }
  return convert(tocode, "ISO-2022-JP-2", start, end, resultp, lengthp);
}

int autodetect(const char* tocode, const char* fromcode, const char* start, const char* end,
               char** resultp, size_t* lengthp) {
  const Family* family = nullptr;
  for (const Family& f : kFamilies) {
    if (strcmp(fromcode, f.name) == 0) {
      family = &f;
      break;
    }
  }
  if (family == nullptr) {
    errno = EINVAL;
    return -1;
  }
  if (family->raises >= 0) family_tried[family->raises] = 1;

  for (size_t i = 0; i < family->own_count; ++i) {
    const int r = convert(tocode, family->own[i], start, end, resultp, lengthp);
    if (r >= 0) return r;
    // A charset this iconv does not know fails with EINVAL and ends the family.
    if (errno != EILSEQ) return -1;
  }
  for (size_t i = 0; i < 3; ++i) {
    if (family_tried[family->cross_flag[i]]) continue;
    const int r = convert(tocode, family->cross[i], start, end, resultp, lengthp);
    if (r >= 0) return r;
    if (errno != EILSEQ) return -1;
  }
  // The last families of the lists (Korean, UTF-8) never raise their flag, so
  // this guard does not fire; it keeps a raised flag from meaning anything
  // other than a plain failure.
  if (family_tried[family->cross_flag[3]]) {
    errno = EINVAL;
    return -1;
  }
  return convert(tocode, family->cross[3], start, end, resultp, lengthp);
}

int convert(const char* tocode, const char* fromcode, const char* start, const char* end,
            char** resultp, size_t* lengthp) {
  if (end < start) {
    errno = EINVAL;
    return -1;
  }
  Converter conv(tocode, fromcode);
  if (!conv.ok()) {
    if (errno != EINVAL) return -1;
    if (strcmp(fromcode, "HZ") == 0) return convert_hz(tocode, start, end, resultp, lengthp);
    if (strcmp(fromcode, "ISO-2022-JP-1") == 0) return convert_iso2022jp1(tocode, start, end, resultp, lengthp);
    return autodetect(tocode, fromcode, start, end, resultp, lengthp);
  }

  // Measuring pass: how many bytes the whole input becomes.
  char scratch[kScratchSize];
  size_t total = 0;
  char* in = const_cast<char*>(start);
  size_t in_left = static_cast<size_t>(end - start);
  while (in_left > 0) {
    char* out = scratch;
    size_t out_left = sizeof scratch;
    const size_t r = iconv(conv.cd, &in, &in_left, &out, &out_left);
    const size_t produced = static_cast<size_t>(out - scratch);
    total += produced;
    if (r != kFailed) continue;
    if (errno == E2BIG && produced > 0) continue;  // scratch full; keep measuring
    if (errno == EINVAL) break;                    // incomplete tail: dropped, not an error
    return -1;  // E2BIG without progress cannot happen with 4 KiB of room; fail rather than spin

  }
  {
    char* out = scratch;
    size_t out_left = sizeof scratch;
    if (iconv(conv.cd, nullptr, nullptr, &out, &out_left) == kFailed) return -1;
    total += static_cast<size_t>(out - scratch);
  }
  if (resultp == nullptr) {
    if (lengthp != nullptr) *lengthp = total;
    return 0;
  }

  char* result;
  if (*resultp == nullptr) {
    result = static_cast<char*>(malloc(total));
  } else if (total == 0) {
    free(*resultp);
    result = static_cast<char*>(malloc(0));
  } else {
    result = static_cast<char*>(realloc(*resultp, total));
    if (result == nullptr) free(*resultp);  // the caller's pointer is replaced by null below
  }
  *resultp = result;
  if (lengthp != nullptr) *lengthp = total;
  if (total == 0) return 0;
  if (result == nullptr) {
    errno = ENOMEM;
    return -1;
  }

  // Converting pass, straight into the result.
  iconv(conv.cd, nullptr, nullptr, nullptr, nullptr);
  in = const_cast<char*>(start);
  in_left = static_cast<size_t>(end - start);
  char* out = result;
  size_t out_left = total;
  while (in_left > 0) {
    if (iconv(conv.cd, &in, &in_left, &out, &out_left) != kFailed) continue;
    if (errno == EINVAL) break;
    if (errno == E2BIG && out_left == 0) {
      // The result is full; what is left must produce nothing (an escape
      // sequence of a stateful charset, say). iconv says E2BIG before it
      // looks at such bytes, so finish them in the scratch buffer.
      char* rest = scratch;
      size_t rest_left = sizeof scratch;
      const size_t r = iconv(conv.cd, &in, &in_left, &rest, &rest_left);
      if (rest != scratch) {
        errno = E2BIG;
        return -1;
      }
      if (r == kFailed && errno != EINVAL) return -1;
      break;
    }
    return -1;
  }
  if (iconv(conv.cd, nullptr, nullptr, &out, &out_left) == kFailed) return -1;
  // Both passes ran the same input from the same initial state; a difference
  // would be a fault of the converter, not of the input.
  if (out_left != 0) abort();
  for (int& f : family_tried) f = 0;
  return 0;
}

}  // namespace

int iconv_string(const char* tocode, const char* fromcode, const char* start, const char* end,
                 char** resultp) {
  return convert(tocode, fromcode, start, end, resultp, nullptr);
}

int iconv_string_n(const char* tocode, const char* fromcode, const char* start, const char* end,
                   char** resultp, size_t* lengthp) {
  return convert(tocode, fromcode, start, end, resultp, lengthp);
}

int iconv_family_tried(IconvFamily family) { return family_tried[family]; }

void iconv_reset_family_tried() {
  for (int& f : family_tried) f = 0;
}
