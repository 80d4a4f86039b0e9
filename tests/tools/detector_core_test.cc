#include "detector_core.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <id3tag.h>

#include <string>
#include <vector>

#include "../platform/stub_program.h"
#include "../temp_tree.h"
#include "metadata/id3_tags.h"
#include "platform/spawn.h"

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

#ifdef MEDIAWALK_DETECTOR_BIN
// Texts in every charset whose answer the tag reader knows, and more.
const std::string kCharsetSamples[] = {
    "\xD4\xC2\xB9\xE2\xD0\xA1\xD2\xB9\xC7\xFA",  // GBK
    "\xA4\xEB\xA5\xFA\xA4p\xA9]\xA6\xB1",  // Big5
    "\xCF\xE5\xF1\xED\xFF \xEE \xE2\xE5\xF2\xF0\xE5",  // windows-1251
    "\x8F\xA5\xE1\xAD\xEF \xAE \xA2\xA5\xE2\xE0\xA5",  // IBM866
    "\xF0\xC5\xD3\xCE\xD1 \xCF \xD7\xC5\xD4\xD2\xC5",  // KOI8-R
    "\x96\xE9\x8B\xF3\x82\xCC\x89\xCC",  // Shift_JIS
    "\xB9\xD9\xB6\xF7\xC0\xC7 \xB3\xEB\xB7\xA1",  // EUC-KR
    "\xD0\x9F\xD0\xB5\xD1\x81\xD0\xBD\xD1\x8F \xE5\xA4\x9C\xE7\xA9\xBA",  // UTF-8
    "\xD4\xF1\xE1\xE3\xEF\xFD\xE4\xE9",  // ISO-8859-7
    "Canci\xF3n del caf\xE9",  // windows-1252
    "Plain title", "", std::string(100, '\xC4'), "\xC0\xAF\xED\xA0\x80",
};

// The sample the tag reader builds for every tag fixture.
std::vector<std::string> FixtureSamples() {
  std::vector<std::string> out;
  const std::string dir = std::string(MEDIAWALK_TEST_DATA) + "/tags/";
  std::vector<std::string> names;
  UniqueDir d(opendir(dir.c_str()));
  while (const dirent* e = d ? readdir(d.get()) : nullptr)
    if (strstr(e->d_name, ".mp3") != nullptr) names.push_back(e->d_name);
  for (const std::string& name : names) {
    struct id3_file* file = id3_file_open((dir + name).c_str(), ID3_FILE_MODE_READONLY);
    struct id3_tag* tag = file ? id3_file_tag(file) : nullptr;
    if (tag != nullptr) {
      MusicFileInfo info = {};
      char sample[kId3SampleSize];
      id3_build_sample(tag, &info, sample);
      out.push_back(sample);
    }
    if (file != nullptr) id3_file_close(file);
  }
  return out;
}

// The routine in this process answers what the shipped tool prints, byte for
// byte, asked the way the scanner starts it; both read the same /etc/codepage.
TEST(DetectorSameAnswer, InProcessAnswerIsTheToolsOutput) {
  StubPath stub;
  stub.Program("detect_char_encode",
               "exec " MEDIAWALK_DETECTOR_LAUNCHER " '" MEDIAWALK_DETECTOR_BIN "' \"$1\"\n");
  std::vector<std::string> samples = FixtureSamples();
  EXPECT_GE(samples.size(), 15u);
  samples.insert(samples.end(), std::begin(kCharsetSamples), std::end(kCharsetSamples));
  CharsetDetector detector("/etc/codepage");
  for (const std::string& sample : samples) {
    char printed[64];
    spawn_read_output("detect_char_encode", sample.c_str(), printed, sizeof printed, sizeof printed - 1);
    EXPECT_EQ(detector.detect(sample.c_str()), std::string(printed)) << sample;
  }
}
#endif

}  // namespace
