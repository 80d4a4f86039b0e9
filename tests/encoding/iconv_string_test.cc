#include "encoding/iconv_string.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>

namespace {

struct Outcome {
  int rc;
  int err;          // errno when rc is -1
  std::string out;  // converted bytes when rc is 0
};

// Converts bytes (without adding a terminator) and returns what came out.
Outcome Convert(const char* to, const char* from, const std::string& bytes) {
  char* result = nullptr;
  size_t len = 0;
  errno = 0;
  const int rc = iconv_string_n(to, from, bytes.data(), bytes.data() + bytes.size(), &result, &len);
  Outcome o{rc, errno, ""};
  if (rc == 0 && result != nullptr) o.out.assign(result, len);
  free(result);
  return o;
}

// Converts a C string as the tag reader does, its terminator included, and
// returns the text before the converted terminator.
Outcome ConvertText(const char* to, const char* from, const char* text) {
  Outcome o = Convert(to, from, std::string(text, strlen(text) + 1));
  if (o.rc == 0) {
    EXPECT_FALSE(o.out.empty()) << from;
    if (!o.out.empty()) {
      EXPECT_EQ(o.out.back(), '\0') << from;
      o.out.pop_back();
    }
  }
  return o;
}

class IconvString : public ::testing::Test {
 protected:
  void SetUp() override { iconv_reset_family_tried(); }
  void TearDown() override { iconv_reset_family_tried(); }
  static void ExpectFlags(int big5, int gb) {
    EXPECT_EQ(iconv_family_tried(kIconvFamilyBig5), big5);
    EXPECT_EQ(iconv_family_tried(kIconvFamilyGb), gb);
    EXPECT_EQ(iconv_family_tried(kIconvFamilyUtf8), 0);
    EXPECT_EQ(iconv_family_tried(kIconvFamilyJp), 0);
    EXPECT_EQ(iconv_family_tried(kIconvFamilyKr), 0);
  }
};

struct ReadingCase {
  const char* fromcode;
  const char* input;
  const char* expected;  // UTF-8
  const char* why;
};

// Each input is valid in a charset of the family's list but not in the ones
// before it, so the reading shows which entry converted it. Inputs carry
// their terminator, as the tag reader passes them: without it a stray lead
// byte at the end would be an incomplete tail, dropped instead of invalid.
const ReadingCase kReadings[] = {
    {"autodetect_utf8", "caf\xc3\xa9", "caf\xc3\xa9", "valid UTF-8 stays"},
    {"autodetect_utf8", "caf\xe9", "caf\xc3\xa9", "invalid UTF-8 is read as Latin-1"},
    {"autodetect_jp", "\x1b$B\x46\x7c\x4b\x5c\x1b(B", "\xe6\x97\xa5\xe6\x9c\xac",
     "7-bit ISO-2022-JP-2 first"},
    {"autodetect_jp", "\xc6\xfc\xcb\xdc", "\xe6\x97\xa5\xe6\x9c\xac", "EUC-JP before Shift_JIS"},
    {"autodetect_jp", "\x93\xfa\x96\x7b", "\xe6\x97\xa5\xe6\x9c\xac", "CP932 when EUC-JP fails"},
    {"autodetect_jp", "\xa4\xf4", "\xe6\xb0\xb4", "no Japanese reading: past ISO-2022-JP-1 and SHIFT_JIS into Big5"},
    {"autodetect_kr", "\x1b$)C\x0e\x47\x51\x0f", "\xed\x95\x9c", "ISO-2022-KR first"},
    {"autodetect_kr", "\xc4\xe3", "\xec\xbd\xb1", "CP949 before JOHAB"},
    {"autodetect_kr", "\xc9\x40", "\xe4\xb9\x82", "no Korean reading: cross try into Big5"},
    {"autodetect_BIG5", "\xa7\x41\xa6\x6e", "\xe4\xbd\xa0\xe5\xa5\xbd", "BIG5 first"},
    {"autodetect_BIG5", "\x80", "\xc2\x80", "CP950 when BIG5 fails"},
    {"autodetect_BIG5", "\x81\x80", "\xe4\xba\x90", "no Big5 reading: cross try into GB"},
    {"autodetect_GB", "\xc4\xe3\xba\xc3", "\xe4\xbd\xa0\xe5\xa5\xbd", "EUC-CN first"},
    {"autodetect_GB", "\x81\x80", "\xe4\xba\x90", "GBK when EUC-CN fails"},
    {"autodetect_GB", "\x81\x30\x84\x36", "\xc2\x81" "0\xc2\x84" "6", "HZ when GBK fails: other bytes pass"},
    {"autodetect_GB", "~{Dc~}~~\x81", "\xe4\xbd\xa0~\xc2\x81", "HZ shifts into GB2312 and back"},
    {"autodetect_GB", "\x81\x30\x84\x36~x", "\xc2\xa5~x", "GB18030 when no HZ reading either"},
};

TEST_F(IconvString, FamiliesTryTheirListsInOrder) {
  for (const ReadingCase& c : kReadings) {
    iconv_reset_family_tried();
    const Outcome o = ConvertText("UTF-8", c.fromcode, c.input);
    EXPECT_EQ(o.rc, 0) << c.fromcode << ": " << c.why;
    EXPECT_EQ(o.out, c.expected) << c.fromcode << ": " << c.why;
    // A completed conversion clears whatever the chain raised.
    ExpectFlags(0, 0);
  }
}

TEST_F(IconvString, RealCharsetConvertsExactlyIncludingTerminator) {
  const char text[] = "caf\xe9";
  char* result = nullptr;
  size_t len = 0;
  ASSERT_EQ(iconv_string_n("UTF-8", "ISO-8859-1", text, text + sizeof text, &result, &len), 0);
  EXPECT_EQ(len, 6u);
  EXPECT_EQ(std::string(result, len), std::string("caf\xc3\xa9", 6));
  free(result);
}

TEST_F(IconvString, ReallocatesTheCallersBuffer) {
  char* result = static_cast<char*>(malloc(3));
  memcpy(result, "old", 3);
  const std::string in(3000, 'a');  // grows the buffer
  ASSERT_EQ(iconv_string("UTF-8", "ASCII", in.data(), in.data() + in.size(), &result), 0);
  EXPECT_EQ(std::string(result, in.size()), in);
  free(result);
}

TEST_F(IconvString, OutputLongerThanTheScratchBuffer) {
  // 5000 Latin-1 bytes become 10000 UTF-8 bytes: the measuring pass wraps.
  const std::string in(5000, '\xe9');
  const Outcome o = Convert("UTF-8", "ISO-8859-1", in);
  ASSERT_EQ(o.rc, 0);
  ASSERT_EQ(o.out.size(), 10000u);
  EXPECT_EQ(o.out.substr(9998), "\xc3\xa9");
}

TEST_F(IconvString, TrailingPartialBig5CharacterIsDropped) {
  const Outcome o = Convert("UTF-8", "BIG5", "\xa7\x41\xa6");
  EXPECT_EQ(o.rc, 0);
  EXPECT_EQ(o.out, "\xe4\xbd\xa0");
}

TEST_F(IconvString, StatefulTailThatProducesNothing) {
  // The closing escape needs no output room once "ab" filled the result.
  const Outcome o = Convert("UTF-8", "ISO-2022-JP", "ab\x1b(B");
  EXPECT_EQ(o.rc, 0);
  EXPECT_EQ(o.out, "ab");
}

TEST_F(IconvString, InvalidInputFailsAndLeavesTheCallersPointer) {
  char* result = static_cast<char*>(malloc(4));
  char* const before = result;
  const char in[] = "\xc3\x28";
  errno = 0;
  EXPECT_EQ(iconv_string("UTF-8", "UTF-8", in, in + 2, &result), -1);
  EXPECT_EQ(errno, EILSEQ);
  EXPECT_EQ(result, before);
  free(result);
}

TEST_F(IconvString, UnknownNamesFailWithEinval) {
  for (const char* name : {"autodetect_xx", "autodetect_JP", "AUTODETECT_UTF8", "autodetect_utf8 "}) {
    char* result = nullptr;
    errno = 0;
    EXPECT_EQ(iconv_string("UTF-8", name, "a", "a" + 1, &result), -1) << name;
    EXPECT_EQ(errno, EINVAL) << name;
    EXPECT_EQ(result, nullptr) << name;
  }
  ExpectFlags(0, 0);
}

TEST_F(IconvString, UnknownTargetEndsTheFamilyWithEinval) {
  const Outcome o = Convert("NO-SUCH-CHARSET", "autodetect_utf8", "abc");
  EXPECT_EQ(o.rc, -1);
  EXPECT_EQ(o.err, EINVAL);
  ExpectFlags(0, 0);
}

TEST_F(IconvString, EmptyRangeAllocatesNothingAndKeepsFlags) {
  // Raise both flags with a failed chain first.
  ASSERT_EQ(ConvertText("UTF-8", "autodetect_BIG5", "~\xff").rc, -1);
  ExpectFlags(1, 1);
  const char* in = "x";
  char* result = nullptr;
  EXPECT_EQ(iconv_string("UTF-8", "UTF-8", in, in, &result), 0);
  free(result);  // a zero-length allocation, or null where malloc(0) gives null
  ExpectFlags(1, 1);
}

TEST_F(IconvString, NullResultOnlyMeasures) {
  ASSERT_EQ(ConvertText("UTF-8", "autodetect_BIG5", "~\xff").rc, -1);
  const char in[] = "caf\xe9";
  size_t len = 0;
  EXPECT_EQ(iconv_string_n("UTF-8", "ISO-8859-1", in, in + 4, nullptr, &len), 0);
  EXPECT_EQ(len, 5u);
  EXPECT_EQ(iconv_string("UTF-8", "ISO-8859-1", in, in + 4, nullptr), 0);
  ExpectFlags(1, 1);  // measuring is not a completed conversion
  const char bad[] = "\xc3\x28";
  errno = 0;
  EXPECT_EQ(iconv_string("UTF-8", "UTF-8", bad, bad + 2, nullptr), -1);
  EXPECT_EQ(errno, EILSEQ);
}

TEST_F(IconvString, FailedChainKeepsFlagsUntilAConversionCompletes) {
  // Valid in GBK only: from the Big5 family it is reached by the cross try.
  const char* gbk_only = "\x81\x80";
  ASSERT_EQ(ConvertText("UTF-8", "autodetect_BIG5", gbk_only).out, "\xe4\xba\x90");

  // Valid nowhere: all four Big5 charsets, then the GB family, which ends the
  // chain with EINVAL at "autodetect_JP". Both families stay marked as tried.
  Outcome o = ConvertText("UTF-8", "autodetect_BIG5", "~\xff");
  EXPECT_EQ(o.rc, -1);
  EXPECT_EQ(o.err, EINVAL);
  ExpectFlags(1, 1);

  // So the Big5 family no longer falls over to GB, and the GBK text now fails.
  o = ConvertText("UTF-8", "autodetect_BIG5", gbk_only);
  EXPECT_EQ(o.rc, -1);
  EXPECT_EQ(o.err, EINVAL);
  ExpectFlags(1, 1);

  // A completed conversion of anything clears the flags again.
  ASSERT_EQ(ConvertText("UTF-8", "autodetect_utf8", "abc").rc, 0);
  ExpectFlags(0, 0);
  EXPECT_EQ(ConvertText("UTF-8", "autodetect_BIG5", gbk_only).out, "\xe4\xba\x90");
}

TEST_F(IconvString, Utf8FamilyFallsOverToBig5ThenGb) {
  // Into ASCII nothing non-ASCII converts, so every list fails with EILSEQ
  // and the chain runs: UTF-8, Latin-1 twice, Big5 family, GB family, then
  // the capitalised Japanese name ends it.
  Outcome o = ConvertText("ASCII", "autodetect_utf8", "\xe9");
  EXPECT_EQ(o.rc, -1);
  EXPECT_EQ(o.err, EINVAL);
  ExpectFlags(1, 1);

  // Both flags raised: straight to "autodetect_JP", which the dispatch does
  // not know; the Korean and UTF-8 tries behind it are never reached.
  o = ConvertText("ASCII", "autodetect_utf8", "\xe9");
  EXPECT_EQ(o.rc, -1);
  EXPECT_EQ(o.err, EINVAL);
  ExpectFlags(1, 1);
}

TEST_F(IconvString, KoreanFamilyStopsAtTheJapaneseCrossTry) {
  // Valid in no Korean charset and in no Big5 or GB one either.
  const Outcome o = ConvertText("UTF-8", "autodetect_kr", "~\xff");
  EXPECT_EQ(o.rc, -1);
  EXPECT_EQ(o.err, EINVAL);
  ExpectFlags(1, 1);
}

}  // namespace
