#include "metadata/id3_tags.h"

#include <gtest/gtest.h>
#include <id3tag.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "../fd_capture.h"
#include "../platform/stub_program.h"
#include "log/err_log.h"
#include "platform/holders.h"

namespace {

using Ucs4 = std::vector<id3_ucs4_t>;

// A terminated UCS-4 text from code points.
Ucs4 U(std::initializer_list<id3_ucs4_t> cps) {
  Ucs4 v(cps);
  v.push_back(0);
  return v;
}
Ucs4 U(const std::string& latin1) {
  Ucs4 v;
  for (unsigned char c : latin1) v.push_back(c);
  v.push_back(0);
  return v;
}

struct PackCase {
  Ucs4 text;
  std::string packed;
  const char* why;
};

TEST(Id3Pack, RebuildsRawBytes) {
  const PackCase cases[] = {
      {U("abc"), "abc", "below 256: one byte"},
      {U({0xC4, 0xE3, 0xFF}), "\xc4\xe3\xff", "Latin-1 range kept as bytes"},
      {U({0x4E2D, 0x41}), std::string("\x4e\x2d" "A"), "two bytes, high first"},
      {U({0x100, 0x41}), std::string("\x01\x00" "A", 3), "a zero low byte is written"},
      {U({0xFFFF}), "\xff\xff", "65535 still packed"},
      {U({0x41, 0x10000, 0x1F600, 0x42}), "AB", "65536 and above dropped"},
      {U(""), "", "empty"},
      {U(std::string(200, 'a')), std::string(129, 'a'), "stops at 129 bytes"},
      {[] {
         Ucs4 v(128, 'a');
         v.push_back(0x4E2D);
         v.push_back('b');
         v.push_back(0);
         return v;
       }(),
       std::string(128, 'a') + "\x4e\x2d", "a pair crossing 129 gives 130"},
      {[] {
         Ucs4 v(128, 'a');
         v.push_back(0x10000);
         v.push_back('b');
         v.push_back('c');
         v.push_back(0);
         return v;
       }(),
       std::string(128, 'a') + "b", "dropped points still checked, do not count"},
  };
  for (const PackCase& c : cases) {
    char out[1024];
    memset(out, 0x55, sizeof out);
    const size_t n = id3_pack_ucs4(c.text.data(), out, sizeof out);
    EXPECT_EQ(std::string(out, n), c.packed) << c.why;
    EXPECT_EQ(out[n], '\0') << c.why;
    EXPECT_EQ(out[n + 1], 0x55) << c.why;
  }
}

TEST(Id3Pack, SmallBufferStaysTerminated) {
  char out[4];
  const Ucs4 text = U("abcdef");
  EXPECT_EQ(id3_pack_ucs4(text.data(), out, sizeof out), 3u);
  EXPECT_STREQ(out, "abc");
  const Ucs4 wide = U({'a', 'b', 0x4E2D});
  EXPECT_EQ(id3_pack_ucs4(wide.data(), out, sizeof out), 2u);
  EXPECT_STREQ(out, "ab");
}

TEST(Id3Cjk, IdeographRange) {
  const struct {
    Ucs4 text;
    bool cjk;
  } cases[] = {
      {U({0x4E00}), true},         {U({0x9FBF}), true},  {U({'a', 0x6587}), true},
      {U({0x4DFF}), false},        {U({0x9FC0}), false}, {U("plain"), false},
      {U({0x3042, 0xAC00}), false},  // kana and hangul are not ideographs
      {U(""), false},
  };
  for (const auto& c : cases) EXPECT_EQ(id3_has_cjk(c.text.data()), c.cjk) << c.text[0];
}

TEST(Id3Genre, NumberRules) {
  const struct {
    const char* text;
    int number;
  } cases[] = {
      {"(17)", 17}, {"17", 17},        {"Rock", 148},  {"(255)", 148}, {"", 148},
      {"0", 0},     {"(0)", 0},        {"147", 147},   {"148", 148},   {"149", 148},
      {"17Rock", 17}, {"(17", 17},     {"( 17)", 148}, {"()", 148},    {"-1", 148},
      {" 17", 148}, {"99999999999999999999", 148},     {"(RX)", 148},
  };
  for (const auto& c : cases) EXPECT_EQ(id3_genre_number(c.text), c.number) << c.text;
}

TEST(Id3Genre, NamesAsSpelledInTheTable) {
  const struct {
    int number;
    const char* name;
  } cases[] = {
      {0, "Blues"},         {17, "Rock"},        {67, "Psychadelic"},   {85, "Bebob"},
      {117, "Powder Ballad"}, {133, "NegerPunk"}, {140, "Contemporary C"}, {147, "SynthPop"},
      {148, "Others"},      {149, "Others"},     {-1, "Others"},
  };
  for (const auto& c : cases) EXPECT_STREQ(id3_genre_name(c.number), c.name) << c.number;
}

// Tags built in memory for the first pass.
class Id3Sample : public ::testing::Test {
 protected:
  void SetUp() override {
    tag_ = id3_tag_new();
    memset(&info_, 0, sizeof info_);
  }
  void TearDown() override { id3_tag_delete(tag_); }
  void Add(const char* id, const Ucs4& text) {
    struct id3_frame* frame = id3_frame_new(id);
    ASSERT_NE(frame, nullptr);
    union id3_field* field = id3_frame_field(frame, 1);
    if (field != nullptr && field->type == ID3_FIELD_TYPE_STRINGLIST) {
      id3_ucs4_t* list[] = {const_cast<id3_ucs4_t*>(text.data())};
      ASSERT_EQ(id3_field_setstrings(field, 1, list), 0);
    }
    ASSERT_EQ(id3_tag_attachframe(tag_, frame), 0);
  }
  void Add(const char* id, const std::string& latin1) { Add(id, U(latin1)); }
  std::string Sample() {
    char sample[kId3SampleSize];
    memset(sample, 0x55, sizeof sample);
    id3_build_sample(tag_, &info_, sample);
    EXPECT_EQ(sample[kId3SampleSize - 1], '\0');
    return sample;
  }
  struct id3_tag* tag_ = nullptr;
  MusicFileInfo info_;
};

TEST_F(Id3Sample, StopsBeforeTheFrameThatPassesHundredBytes) {
  Add("TIT2", std::string(40, 'T'));
  Add("TPE1", std::string(40, 'A'));
  Add("TALB", std::string(40, 'B'));
  Add("TCOM", "c");
  EXPECT_EQ(Sample(), std::string(40, 'T') + std::string(40, 'A'));
}

TEST_F(Id3Sample, ExactlyHundredBytesFit) {
  Add("TIT2", std::string(60, 'T'));
  Add("TPE1", std::string(40, 'A'));
  Add("TALB", "x");
  EXPECT_EQ(Sample(), std::string(60, 'T') + std::string(40, 'A'));
}

TEST_F(Id3Sample, OneLongTextLeavesItEmpty) {
  Add("TIT2", std::string(200, 'T'));
  Add("TPE1", "short");
  EXPECT_EQ(Sample(), "");
}

TEST_F(Id3Sample, FiveFramesAtMost) {
  for (const char* t : {"a", "b", "c", "d", "e", "f"}) Add(t[0] % 2 ? "TIT2" : "TCOM", t);
  EXPECT_EQ(Sample(), "abcde");
}

TEST_F(Id3Sample, OnlyTheFiveKindsCount) {
  Add("TCON", "Rock");
  Add("TBPM", "120");
  Add("TYER", "1999");
  Add("TIT2", "t");
  Add("TPE1", "p");
  Add("TALB", "l");
  Add("TCOM", "c");
  Add("TPE2", "band");
  EXPECT_EQ(Sample(), "tplc");
}

TEST_F(Id3Sample, CommentsAndIdeographsNeitherAppendNorCount) {
  for (int i = 0; i < 5; ++i) {
    Add("COMM", "ignored");  // field 1 of COMM is the language: no text
    Add("TIT2", U({0x4E2D, 0x6587}));
  }
  Add("TPE1", "kept");
  EXPECT_EQ(Sample(), "kept");
}

TEST_F(Id3Sample, AppendingStopsAtAZeroByte) {
  Add("TIT2", U({0x100, 'x'}));  // packs to 01 00 78: three bytes counted, one appended
  Add("TPE1", std::string(97, 'a'));
  Add("TALB", "z");
  EXPECT_EQ(Sample(), "\x01" + std::string(97, 'a'));
}

TEST_F(Id3Sample, CompilationFrame) {
  Add("YTCP", "");
  Add("TIT2", "t");
  EXPECT_EQ(Sample(), "t");
  EXPECT_EQ(info_.compilation, 1);
}

// Reads the committed fixtures with a stub detector on PATH that records
// its argument and prints a chosen answer.
class Id3Reader : public ::testing::Test {
 protected:
  void SetUp() override {
    have_title = have_artist = have_album = have_genre = 0;
    memset(&info_, 0, sizeof info_);
    stub_.Program("detect_char_encode", "printf '%s' \"$1\" > \"" + stub_.File("arg") +
                                            "\"\ncat \"" + stub_.File("answer") + "\"\n");
    Answer("");
  }
  void TearDown() override { Clear(); }
  void Answer(const std::string& answer) { stub_.Write("answer", answer); }
  void Clear() {
    for (char** p : {&info_.title, &info_.artist, &info_.album, &info_.genre, &info_.type}) {
      free(*p);
      *p = nullptr;
    }
  }
  int Read(const char* name, const char* type = "mp3") {
    Clear();
    path_ = std::string(MEDIAWALK_TEST_DATA) + "/tags/" + name;
    info_.type = strdup(type);
    return scan_get_mp3tags(path_.c_str(), &info_);
  }
  static std::string Text(const char* p) { return p == nullptr ? "<null>" : p; }

  StubPath stub_;
  MusicFileInfo info_;
  std::string path_;
};

struct FixtureCase {
  const char* file;
  const char* title;
  const char* artist;
  const char* album;
  const char* genre;
  int bpm;
  int compilation;
};

// With no detector answer every non-CJK text is read as UTF-8, else Latin-1.
const FixtureCase kFixtures[] = {
    {"v23_latin1.mp3", "Latin Title", "Latin Artist", "Latin Album", "Rock", 120, 0},
    {"v24_utf16.mp3", "Wide Title", "Wide Artist", "Latin Album 24", "Rock", 0, 0},
    {"v24_utf8.mp3", "\xc3\x9cn\xc3\xaf" "code", "UTF-8 Artist", "<null>", "<null>", 0, 0},
    {"utf16_chinese.mp3", "\xe4\xb8\xad\xe6\x96\x87\xe6\xad\x8c", "Artiste \xc3\xa9", "Album",
     "<null>", 0, 0},
    {"astral.mp3", "AB", "<null>", "<null>", "<null>", 0, 0},
    {"big5_title.mp3", "\xc2\xa7" "A\xc2\xa6n", "Big5 Artist", "<null>", "<null>", 0, 0},
    {"genre_17.mp3", "Genre 17", "<null>", "<null>", "Rock", 0, 0},
    {"genre_rock.mp3", "Genre Rock", "<null>", "<null>", "Others", 0, 0},
    {"genre_paren255.mp3", "Genre 255", "<null>", "<null>", "Others", 0, 0},
    {"genre_empty.mp3", "Genre Empty", "<null>", "<null>", "<null>", 0, 0},  // no text at all
    {"genre_empty24.mp3", "Genre Empty 24", "<null>", "<null>", "Others", 0, 0},
    {"repeated_frames.mp3", "Second", "Two", "<null>", "Country", 0, 0},
    {"title_quote60.mp3", "A title of sixty bytes with a \"double quote\" in it, 01234567",
     "<null>", "<null>", "<null>", 0, 0},
    {"ytcp.mp3", "<null>", "<null>", "<null>", "<null>", 0, 1},
    {"no_tag.mp3", "<null>", "<null>", "<null>", "<null>", 0, 0},
};

TEST_F(Id3Reader, FillsTheRecord) {
  for (const FixtureCase& c : kFixtures) {
    have_title = have_artist = have_album = have_genre = 0;
    info_.bpm = 0;
    info_.compilation = 0;
    EXPECT_EQ(Read(c.file), 0) << c.file;
    EXPECT_EQ(Text(info_.title), c.title) << c.file;
    EXPECT_EQ(Text(info_.artist), c.artist) << c.file;
    EXPECT_EQ(Text(info_.album), c.album) << c.file;
    EXPECT_EQ(Text(info_.genre), c.genre) << c.file;
    EXPECT_EQ(info_.bpm, c.bpm) << c.file;
    EXPECT_EQ(info_.compilation, c.compilation) << c.file;
    EXPECT_EQ(have_title, info_.title != nullptr) << c.file;
    EXPECT_EQ(have_artist, info_.artist != nullptr) << c.file;
    EXPECT_EQ(have_album, info_.album != nullptr) << c.file;
    EXPECT_EQ(have_genre, info_.genre != nullptr) << c.file;
  }
}

TEST_F(Id3Reader, FlagsAreNeverCleared) {
  ASSERT_EQ(Read("v23_latin1.mp3"), 0);
  ASSERT_EQ(Read("no_tag.mp3"), 0);
  EXPECT_EQ(have_title + have_artist + have_album + have_genre, 4);
}

struct SampleCase {
  const char* file;
  std::string sample;
};

TEST_F(Id3Reader, DetectorGetsTheSampleVerbatim) {
  stub_.EnterDir();  // where a command run by a shell would leave its files
  const SampleCase cases[] = {
      {"v23_latin1.mp3", "Latin TitleLatin ArtistLatin Album"},  // COMM adds nothing
      {"long_sample.mp3", std::string(40, 'T') + std::string(40, 'A')},
      {"five_frames.mp3", "abcde"},
      {"utf16_chinese.mp3", "Artiste \xe9" "Album"},
      {"gbk_title.mp3", "\xc4\xe3\xba\xc3GBK Artist"},
      {"shell_meta.mp3", "$(touch pwned_title)`touch pwned_artist`x\"; touch pwned_album; \""},
      {"no_tag.mp3", ""},  // the detector runs even with nothing to say
  };
  for (const SampleCase& c : cases) {
    stub_.Write("arg", "<not run>");
    ASSERT_EQ(Read(c.file), 0) << c.file;
    EXPECT_EQ(stub_.Read("arg"), c.sample) << c.file;
  }
  for (const char* f : {"pwned_title", "pwned_artist", "pwned_album"}) EXPECT_FALSE(stub_.Exists(f));
}

struct AnswerCase {
  const char* answer;
  const char* gbk_title;   // C4 E3 BA C3 from gbk_title.mp3
  const char* euro_title;  // 80 " Euro" from cp1252_title.mp3
};

#define LATIN1_GBK "\xc3\x84\xc3\xa3\xc2\xba\xc3\x83"
#define LATIN1_EURO "\xc2\x80 Euro"
const AnswerCase kAnswers[] = {
    {"windows-1251", LATIN1_GBK, LATIN1_EURO},
    {"IBM866", LATIN1_GBK, LATIN1_EURO},
    {"x-mac-cyrillic", LATIN1_GBK, LATIN1_EURO},
    {"windows-1252", LATIN1_GBK, "\xe2\x82\xac Euro"},
    {"KOI8-R", "\xd0\x94\xd0\xb3\xd1\x94\xd0\x93", "\xd0\x82 Euro"},  // read as CP1251
    {"gb18030", "\xe4\xbd\xa0\xe5\xa5\xbd", "\xe2\x82\xac Euro"},     // EUC-CN; GBK has the euro
    {"", LATIN1_GBK, LATIN1_EURO},
    {"Big5", "\xe6\x96\x95\xe7\x96\x91", LATIN1_EURO},
    {"IBM855", "\xe6\x96\x95\xe7\x96\x91", LATIN1_EURO},
    {"x-euc-tw", "\xe6\x96\x95\xe7\x96\x91", LATIN1_EURO},
    {"ISO-8859-7", "\xe4\xbd\x8e\xe6\x8c\xab", LATIN1_EURO},  // EUC-JP reading
    {"KOI8-R\n", LATIN1_GBK, LATIN1_EURO},  // a trailing newline matches no row
    {"UTF-8", LATIN1_GBK, LATIN1_EURO},
};

TEST_F(Id3Reader, AnswerSelectsTheSourceCharset) {
  for (const AnswerCase& c : kAnswers) {
    Answer(c.answer);
    ASSERT_EQ(Read("gbk_title.mp3"), 0);
    EXPECT_EQ(Text(info_.title), c.gbk_title) << '"' << c.answer << '"';
    EXPECT_EQ(Text(info_.artist), "GBK Artist") << '"' << c.answer << '"';
    ASSERT_EQ(Read("cp1252_title.mp3"), 0);
    EXPECT_EQ(Text(info_.title), c.euro_title) << '"' << c.answer << '"';
  }
}

TEST_F(Id3Reader, IdeographsBypassTheConversion) {
  // Under Big5 autodetection "Artiste \xe9" has no reading and is dropped,
  // while the Chinese title comes from libid3tag unchanged.
  Answer("Big5");
  ASSERT_EQ(Read("utf16_chinese.mp3"), 0);
  EXPECT_EQ(Text(info_.title), "\xe4\xb8\xad\xe6\x96\x87\xe6\xad\x8c");
  EXPECT_EQ(Text(info_.artist), "<null>");
  EXPECT_EQ(have_artist, 0);
  EXPECT_EQ(Text(info_.album), "Album");
}

TEST_F(Id3Reader, MissingDetectorReadsAsUtf8) {
  StubPath empty(/*keep_system_path=*/false);
  ASSERT_EQ(Read("gbk_title.mp3"), 0);
  EXPECT_EQ(Text(info_.title), LATIN1_GBK);
}

TEST_F(Id3Reader, TypeDecidesWhetherToRead) {
  ASSERT_EQ(Read("v23_latin1.mp3", "MP3"), 0);
  EXPECT_EQ(Text(info_.title), "Latin Title");
  Clear();
  have_title = 0;
  testing::internal::CaptureStdout();
  info_.type = strdup("ogg");
  EXPECT_EQ(scan_get_mp3tags("/nonexistent/file.ogg", &info_), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(info_.title, nullptr);
  EXPECT_EQ(have_title, 0);
}

// Builds an ID3v2 tag (version 3 or 4) of the given frames, followed by one
// MPEG audio frame.
std::string TagFile(int version, const std::vector<std::string>& frames) {
  std::string body;
  for (const std::string& f : frames) body += f;
  const size_t n = body.size();
  std::string out = "ID3";
  out += char(version);
  out += std::string("\0\0", 2);
  for (int shift : {21, 14, 7, 0}) out += char((n >> shift) & 0x7F);
  return out + body + "\xff\xfb\x90\x64" + std::string(413, '\0');
}

std::string Be32(uint32_t v) {
  return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
}
std::string Syncsafe(uint32_t v) {
  return {char((v >> 21) & 0x7F), char((v >> 14) & 0x7F), char((v >> 7) & 0x7F), char(v & 0x7F)};
}

// "\0Compressed title" deflated, 17 bytes once inflated.
const std::string kDeflatedTitle(
    "\x78\x9c\x63\x70\xce\xcf\x2d\x28\x4a\x2d\x2e\x4e\x4d\x51\x28\xc9\x2c\xc9\x49\x05\x00\x35\xc5\x06\x58", 25);

// A v2.3 frame compressed by flag, its inflated size declared ahead of the data.
std::string V23Compressed(const char* id, uint32_t declared, const std::string& data) {
  return id + Be32(uint32_t(4 + data.size())) + std::string("\0\x80", 2) + Be32(declared) + data;
}
std::string V23Text(const char* id, const std::string& text) {
  return id + Be32(uint32_t(1 + text.size())) + std::string("\0\0", 2) + std::string(1, '\0') + text;
}

// One MPEG audio frame, then an ID3v2.4 tag of the given frames found
// through its footer, then an ID3v1 tag when asked.
std::string FooterTagFile(const std::vector<std::string>& frames, bool v1) {
  std::string body;
  for (const std::string& f : frames) body += f;
  const std::string size = Syncsafe(uint32_t(body.size()));
  std::string out = "\xff\xfb\x90\x64" + std::string(413, '\0');
  out += std::string("ID3\x04\0\x10", 6) + size + body + std::string("3DI\x04\0\x10", 6) + size;
  if (v1) out += "TAG" + std::string(125, '\0');
  return out;
}
std::string V24Compressed(const char* id, uint32_t declared, const std::string& data) {
  return id + Syncsafe(uint32_t(4 + data.size())) + std::string("\0\x09", 2) + Syncsafe(declared) + data;
}

struct InflateCase {
  const char* name;
  std::string file;
  const char* title;
  const char* artist;
};

// libid3tag allocates what a compressed frame declares before it inflates
// it; a tag declaring more than 1 MiB in all reads as a tag without frames,
// the way libid3tag reads one whose frame does not inflate to its size.
TEST_F(Id3Reader, CompressedFramesKeepTheirOutcomeWithinBound) {
  const InflateCase cases[] = {
      {"small_compressed_title_read",
       TagFile(3, {V23Compressed("TIT2", 17, kDeflatedTitle), V23Text("TPE1", "Artist")}), "Compressed title",
       "Artist"},
      {"declares_2gib",
       TagFile(3, {V23Text("TPE1", "Artist"), V23Compressed("TALB", 0x80000000u, kDeflatedTitle)}), "<null>",
       "<null>"},
      {"two_frames_past_1mib_together",
       TagFile(3, {V23Compressed("TALB", 600 << 10, "x"), V23Compressed("TCOM", 600 << 10, "y"),
                   V23Compressed("TIT2", 17, kDeflatedTitle)}),
       "<null>", "<null>"},
      {"v24_length_indicator_2gib",
       TagFile(4, {"TPE1" + Syncsafe(7) + std::string("\0\0\0Artist", 9),
                   "TALB" + Syncsafe(8) + std::string("\0\x09", 2) + Syncsafe(0x0FFFFFFF) + "abcd"}),
       "<null>", "<null>"},
      {"footer_tag_small_title_read", FooterTagFile({V24Compressed("TIT2", 17, kDeflatedTitle)}, false),
       "Compressed title", "<null>"},
      {"footer_tag_before_id3v1_read", FooterTagFile({V24Compressed("TIT2", 17, kDeflatedTitle)}, true),
       "Compressed title", "<null>"},
  };
  for (const InflateCase& c : cases) {
    stub_.Write(c.name, c.file);
    Clear();
    info_.type = strdup("mp3");
    EXPECT_EQ(scan_get_mp3tags(stub_.File(c.name).c_str(), &info_), 0) << c.name;
    EXPECT_EQ(Text(info_.title), c.title) << c.name;
    EXPECT_EQ(Text(info_.artist), c.artist) << c.name;
  }
}

long PeakRssKib() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

// libid3tag reads a tag whole; a sparse file that costs nothing on disk can
// declare 256 MiB of tag. Past 8 MiB a tag reads as one without frames.
TEST_F(Id3Reader, TagTooLargeToReadHasNoFrames) {
  const std::string v23_title = V23Text("TIT2", "Title!");
  const std::string v22_title = std::string("TT2\0\0\x07\0", 7) + "Title!";
  const struct {
    char version;
    const std::string& frame;
    uint32_t declared;
    const char* title;
  } cases[] = {{3, v23_title, 8u << 20, "Title!"},
               {3, v23_title, (8u << 20) + 1, "<null>"},
               {3, v23_title, 0x0FFFFFFF, "<null>"},
               {2, v22_title, 8u << 20, "Title!"},
               {2, v22_title, 0x0FFFFFFF, "<null>"}};
  for (const auto& c : cases) {
    const std::string path = stub_.File("sparse.mp3");
    {
      UniqueFile f(fopen(path.c_str(), "wb"));
      ASSERT_TRUE(f);
      const std::string head =
          "ID3" + std::string(1, c.version) + std::string("\0\0", 2) + Syncsafe(c.declared) + c.frame;
      ASSERT_EQ(fwrite(head.data(), 1, head.size(), f.get()), head.size());
      ASSERT_EQ(ftruncate(fileno(f.get()), off_t(c.declared) + (1 << 20)), 0);
    }
    Clear();
    info_.type = strdup("mp3");
    const long before = PeakRssKib();
    const std::string what = "v2." + std::to_string(c.version) + " declaring " + std::to_string(c.declared);
    EXPECT_EQ(scan_get_mp3tags(path.c_str(), &info_), 0) << what;
    EXPECT_LT(PeakRssKib() - before, 32 * 1024) << what;
    EXPECT_EQ(Text(info_.title), c.title) << what;
  }
}

TEST_F(Id3Reader, UnopenableFileFails) {
  info_.type = strdup("mp3");
  testing::internal::CaptureStdout();
  EXPECT_EQ(scan_get_mp3tags("/nonexistent/file.mp3", &info_), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Cannot open /nonexistent/file.mp3\n");
  EXPECT_EQ(stub_.Read("arg"), "<missing>");  // no detector run
}

TEST_F(Id3Reader, LogLines) {
  err_log_reset();
  err_log_set_level(9);
  {
    FdCapture err(2);
    ASSERT_EQ(Read("ytcp.mp3"), 0);
    ASSERT_EQ(Read("v23_latin1.mp3"), 0);
    // One compilation line per pass, one bpm line from the second pass.
    EXPECT_EQ(err.text(), "Compilation: 1\nCompilation: 1\nBPM: 120\n");
  }
  {
    FdCapture err(2);
    FdCapture out(1);
    Clear();
    info_.type = strdup("mp3");
    EXPECT_EQ(scan_get_mp3tags("/nonexistent/file.mp3", &info_), -1);
    EXPECT_EQ(out.text(), "Cannot open /nonexistent/file.mp3\n");
    EXPECT_EQ(err.text(), "Cannot open /nonexistent/file.mp3\n");
  }
  err_log_set_level(1);  // failures are level 2, debug lines level 9
  {
    FdCapture err(2);
    ASSERT_EQ(Read("ytcp.mp3"), 0);
    Clear();
    info_.type = strdup("mp3");
    FdCapture out(1);
    EXPECT_EQ(scan_get_mp3tags("/nonexistent/file.mp3", &info_), -1);
    out.text();
    EXPECT_EQ(err.text(), "");
  }
  err_log_reset();
}

}  // namespace
