#include "detector_core.h"

#include <gtest/gtest.h>

#include <string>

#include "../temp_tree.h"

namespace {

// Marks a row whose answer must be what the detector says with no language setting.
const char* const kUnchanged = "(unchanged)";

struct PriorCase {
  const char* codepage;  // content of the setting file; nullptr: no file
  const char* sample;
  const char* answer;
};

const PriorCase kPriorCases[] = {
    {"cp936\n", "\xC4\xE3\xBA\xC3", "gb18030"},    // "ni hao" in GBK
    {"cp950\n", "\xA7\x41\xA6\x6E", "Big5"},       // the same in Big5, trail bytes in ASCII
    {"cp932\n", "\x93\xFA\x96\x7B", "SHIFT_JIS"},  // "nihon"
    {"cp949\n", "\xBE\xC8\xB3\xE7", "UHC"},        // "annyeong" in EUC-KR
    {"x cp936", "Track \xC4\xE3\xBA\xC3 01", "gb18030"},
    {"cp936\n", "\xCB\xAE\xB9\xFA", "gb18030"},    // named UTF-8 by the library, but not UTF-8
    {"cp936\n", "\xE4\xBD\xA0\xE5\xA5\xBD", "UTF-8"},  // well-formed UTF-8 stays UTF-8
    {nullptr, "\xC4\xE3\xBA\xC3", kUnchanged},
    {"CP936\n", "\xC4\xE3\xBA\xC3", kUnchanged},  // labels are case-sensitive
    {"cp850\n", "\xC4\xE3\xBA\xC3", kUnchanged},
    {"cp866\n", "\xC4\xE3\xBA\xC3", kUnchanged},
    {"\ncp936\n", "\xC4\xE3\xBA\xC3", kUnchanged},  // only the first line counts
    {"cp932\n", "\xC4\xE3\xBA\xC3", kUnchanged},    // not Shift_JIS
    {"cp936\n", "Cr\xE8me br\xFBl\xE9" "e", kUnchanged},
    {"cp950\n", "\xE9t\xE9", kUnchanged},
    {"cp936\n", "\xC4\xE3\xBA", kUnchanged},  // cut in a character
    {"cp936\n", "plain text", "ASCII"},
    {"cp936\n", "", ""},
};

class DetectorPrior : public ::testing::TestWithParam<PriorCase> {};

TEST_P(DetectorPrior, LanguageSettingDecidesUnsureAnswers) {
  const PriorCase& c = GetParam();
  TempTree tree;
  const std::string file = c.codepage ? tree.file("codepage", c.codepage) : tree.root() + "none";
  CharsetDetector with_setting(file.c_str());
  CharsetDetector without((tree.root() + "none").c_str());
  const std::string unchanged = without.detect(c.sample);
  const std::string expected = c.answer == kUnchanged ? unchanged : c.answer;
  EXPECT_EQ(with_setting.detect(c.sample), expected);
  // Asked again, the reset object answers alike.
  EXPECT_EQ(with_setting.detect(c.sample), expected);
}

INSTANTIATE_TEST_SUITE_P(Samples, DetectorPrior, ::testing::ValuesIn(kPriorCases));

}  // namespace
