#include "encoding/codepage.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

namespace {

class CodePageFile : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/codepage_test_XXXXXX";
    const int fd = mkstemp(tmpl);
    ASSERT_GE(fd, 0);
    close(fd);
    path_ = tmpl;
  }
  void TearDown() override { unlink(path_.c_str()); }
  void Write(const std::string& text) {
    FILE* f = fopen(path_.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
  }
  std::string path_;
};

struct LabelCase {
  const char* content;
  int number;
  const char* charset;
};

const LabelCase kLabelCases[] = {
    {"cp950\n", 1, "autodetect_BIG5"},
    {"cp936", 2, "autodetect_GB"},
    {"cp932\n", 3, "autodetect_jp"},
    {"cp949\n", 4, "autodetect_kr"},
    {"cp866\n", 6, "KOI8-R"},
    {"cp850\n", 7, "ISO-8859-1"},
    {"cp437\n", 5, "autodetect_utf8"},
    {"", 5, "autodetect_utf8"},
    {"CP950\n", 5, "autodetect_utf8"},          // case matters
    {"cp936,cp950\n", 1, "autodetect_BIG5"},    // cp950 is looked for first
    {"cp850 cp866\n", 6, "KOI8-R"},             // so is cp866 before cp850
    {"xcp9360\n", 2, "autodetect_GB"},          // inside a longer word
    {"123456789012345678cp950", 1, "autodetect_BIG5"},  // ends at byte 23: seen
    {"1234567890123456789cp950", 5, "autodetect_utf8"}, // its last byte is the 24th
    {"12345678901234567890123cp950", 5, "autodetect_utf8"},
    {"\ncp950\n", 5, "autodetect_utf8"},        // second line is never read
    {"lang=cp949\ncp950\n", 4, "autodetect_kr"},
};

TEST_F(CodePageFile, LabelsSelectNumberAndCharset) {
  for (const LabelCase& c : kLabelCases) {
    Write(c.content);
    memset(from_codepage, 'X', sizeof from_codepage);
    EXPECT_EQ(CodePageType_from(path_.c_str()), c.number) << '"' << c.content << '"';
    EXPECT_STREQ(from_codepage, c.charset) << '"' << c.content << '"';
  }
}

TEST_F(CodePageFile, DoesNotStoreTheNumber) {
  Write("cp936\n");
  codepage = 42;
  EXPECT_EQ(CodePageType_from(path_.c_str()), 2);
  EXPECT_EQ(codepage, 42);
}

TEST(CodePage, MissingFileLeavesCharsetUntouched) {
  strcpy(from_codepage, "KOI8-R");
  testing::internal::CaptureStdout();
  EXPECT_EQ(CodePageType_from("/nonexistent/codepage"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Open CodePage Error\n");
  EXPECT_STREQ(from_codepage, "KOI8-R");
}

struct Big5Case {
  unsigned char first, second;
  int big5;
};

const Big5Case kBig5Cases[] = {
    {0xA1, 0x40, 1}, {0xA2, 0x7E, 1}, {0xA3, 0x40, 1}, {0xA3, 0x7E, 1},  // low trail, rows A1..A3
    {0xA1, 0xA1, 1}, {0xA2, 0xFE, 1},                                      // high trail, A1 and A2
    {0xA3, 0xA1, 1}, {0xA3, 0xBF, 1},                                      // A3 only up to BF
    {0xA3, 0xC0, 0}, {0xA3, 0xFE, 0}, {0xA1, 0x3F, 0}, {0xA1, 0x7F, 0},
    {0xA2, 0xA0, 0}, {0xA2, 0xFF, 0}, {0xA0, 0x40, 0}, {0xA4, 0x40, 0},
    {0xA4, 0xA1, 0}, {0x41, 0x42, 0}, {0x00, 0x00, 0},
};

TEST(CheckBig5, SymbolRows) {
  for (const Big5Case& c : kBig5Cases) {
    codepage = 0;
    testing::internal::CaptureStdout();
    const int r = check_big5(c.first, c.second);
    const std::string out = testing::internal::GetCapturedStdout();
    char expected[16];
    snprintf(expected, sizeof expected, "[%x-%x]\n", c.first, c.second);
    EXPECT_EQ(r, c.big5) << expected;
    EXPECT_EQ(codepage, c.big5 ? 1 : 5) << expected;
    EXPECT_EQ(out, expected);
  }
}

}  // namespace
