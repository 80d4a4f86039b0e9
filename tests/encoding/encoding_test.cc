// The code page setting, Big5 symbol rows and the autodetecting conversions.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "../case_table.h"
#include "../temp_tree.h"
#include "encoding/codepage.h"
#include "encoding/iconv_string.h"

namespace {

TABLE_TEST(CodePage, "codepage.tsv") {
  TempTree tree;
  memset(from_codepage, 'X', sizeof from_codepage);
  EXPECT_EQ(CodePageType_from(tree.file("codepage", c.at(0)).c_str()), c.num(1));
  EXPECT_EQ(from_codepage, c.at(2));
}

TABLE_TEST(Big5Symbol, "big5_symbols.tsv") {
  codepage = 0;
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(check_big5(c.at(0)[0], c.at(0)[1]), c.num(1));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.at(2));
  EXPECT_EQ(codepage, c.num(1) ? 1 : 5);
}

// Converts text and its terminator into UTF-8 as the tag reader does; "error ENAME" when it fails.
std::string convert(const std::string& from, const std::string& text) {
  char* out = nullptr;
  size_t len = 0;
  errno = 0;
  if (iconv_string_n("UTF-8", from.c_str(), text.c_str(), text.c_str() + text.size() + 1, &out, &len) != 0)
    return std::string("error ") + strerrorname_np(errno);
  std::string s(out, len);
  free(out);
  return s.empty() || s.back() != '\0' ? "no terminator" : s.substr(0, s.size() - 1);
}

// Each input converts only from a charset of its family's list, or of the family tried next.
TABLE_TEST(Autodetect, "iconv_families.tsv") {
  iconv_reset_family_tried();
  EXPECT_EQ(convert(c.at(0), c.at(1)), c.at(2));
  EXPECT_EQ(iconv_family_tried(kIconvFamilyBig5) + iconv_family_tried(kIconvFamilyGb), 0);
}

// A chain that failed everywhere marks its families tried: the Big5 family no longer falls over
// to GB until a conversion completes.
TEST(Autodetect, FailedChainKeepsFamiliesTried) {
  iconv_reset_family_tried();
  EXPECT_EQ(convert("autodetect_BIG5", "\x81\x80"), "\xe4\xba\x90");
  EXPECT_EQ(convert("autodetect_BIG5", "~\xff"), "error EINVAL");
  EXPECT_EQ(convert("autodetect_BIG5", "\x81\x80"), "error EINVAL");
  EXPECT_EQ(convert("autodetect_utf8", "abc"), "abc");
  EXPECT_EQ(convert("autodetect_BIG5", "\x81\x80"), "\xe4\xba\x90");
}

}  // namespace
