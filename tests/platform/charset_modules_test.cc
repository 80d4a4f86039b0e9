// The charsets that tag text is tried in must be loadable where the program
// runs. glibc keeps all but a handful of them in modules loaded at run time,
// so a target image (or an emulator sysroot) without the modules fails here
// long before a tag comes out as mojibake.
#include <ctype.h>
#include <errno.h>
#include <iconv.h>
#include <string.h>

#include <ostream>
#include <string>

#include <gtest/gtest.h>

namespace {

struct CharsetCase {
  const char* charset;
  const char* input;
  const char* utf8;
};

std::string to_utf8(iconv_t cd, const std::string& in, int* err) {
  char out[64];
  char* src = const_cast<char*>(in.data());
  size_t src_left = in.size();
  char* dst = out;
  size_t dst_left = sizeof out;
  *err = 0;
  if (iconv(cd, &src, &src_left, &dst, &dst_left) == static_cast<size_t>(-1)) *err = errno;
  // Flush a stateful encoding's shift state.
  if (*err == 0 && iconv(cd, nullptr, nullptr, &dst, &dst_left) == static_cast<size_t>(-1)) {
    *err = errno;
  }
  return std::string(out, sizeof out - dst_left);
}

void PrintTo(const CharsetCase& c, std::ostream* os) { *os << c.charset; }

class CharsetModuleTest : public testing::TestWithParam<CharsetCase> {};

TEST_P(CharsetModuleTest, OpensAndConvertsToUtf8) {
  const CharsetCase& c = GetParam();
  iconv_t cd = iconv_open("UTF-8", c.charset);
  ASSERT_NE(reinterpret_cast<iconv_t>(-1), cd)
      << c.charset << ": " << strerror(errno) << " (are the charset modules installed?)";
  int err = 0;
  const std::string got = to_utf8(cd, c.input, &err);
  iconv_close(cd);
  EXPECT_EQ(0, err) << strerror(err);
  EXPECT_EQ(std::string(c.utf8), got);
}

// One character per charset: U+4E2D for the Chinese and Japanese ones,
// U+D55C for the Korean ones, U+041F and U+00E9 for the last two.
INSTANTIATE_TEST_SUITE_P(
    TagCharsets, CharsetModuleTest,
    testing::Values(CharsetCase{"BIG5", "\xA4\xA4", "\xE4\xB8\xAD"},
                    CharsetCase{"CP950", "\xA4\xA4", "\xE4\xB8\xAD"},
                    CharsetCase{"BIG5-HKSCS", "\xA4\xA4", "\xE4\xB8\xAD"},
                    CharsetCase{"EUC-TW", "\xC4\xE3", "\xE4\xB8\xAD"},
                    CharsetCase{"EUC-CN", "\xD6\xD0", "\xE4\xB8\xAD"},
                    CharsetCase{"GBK", "\xD6\xD0", "\xE4\xB8\xAD"},
                    CharsetCase{"GB18030", "\xD6\xD0", "\xE4\xB8\xAD"},
                    CharsetCase{"SHIFT_JIS", "\x92\x86", "\xE4\xB8\xAD"},
                    CharsetCase{"CP932", "\x92\x86", "\xE4\xB8\xAD"},
                    CharsetCase{"EUC-JP", "\xC3\xE6", "\xE4\xB8\xAD"},
                    CharsetCase{"ISO-2022-JP", "\x1B$BCf\x1B(B", "\xE4\xB8\xAD"},
                    CharsetCase{"EUC-KR", "\xC7\xD1", "\xED\x95\x9C"},
                    CharsetCase{"CP949", "\xC7\xD1", "\xED\x95\x9C"},
                    CharsetCase{"KOI8-R", "\xF0", "\xD0\x9F"},
                    CharsetCase{"ISO-8859-1", "\xE9", "\xC3\xA9"}),
    [](const testing::TestParamInfo<CharsetCase>& info) {
      std::string name;
      for (const char* p = info.param.charset; *p; ++p) {
        name += isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
      }
      return name;
    });

TEST(CharsetModules, UnknownCharsetIsRefusedWithEinval) {
  errno = 0;
  iconv_t cd = iconv_open("UTF-8", "autodetect_BIG5");
  EXPECT_EQ(reinterpret_cast<iconv_t>(-1), cd);
  EXPECT_EQ(EINVAL, errno);
  if (cd != reinterpret_cast<iconv_t>(-1)) iconv_close(cd);
}

}  // namespace
