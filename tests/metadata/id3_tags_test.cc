#include "metadata/id3_tags.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <id3tag.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "../fd_capture.h"
#include "../platform/stub_program.h"
#include "../sparse_file.h"
#include "log/err_log.h"
#include "metadata/id3_reduce.h"
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
  // Under Big5 autodetection "Artiste \xe9" has no Big5 or GBK reading and
  // comes through HZ, which lets the byte pass, while the Chinese title comes
  // from libid3tag unchanged.
  Answer("Big5");
  ASSERT_EQ(Read("utf16_chinese.mp3"), 0);
  EXPECT_EQ(Text(info_.title), "\xe4\xb8\xad\xe6\x96\x87\xe6\xad\x8c");
  EXPECT_EQ(Text(info_.artist), "Artiste \xc3\xa9");
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

std::string Be32(uint32_t v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }
std::string Syncsafe(uint32_t v) {
  return {char((v >> 21) & 0x7F), char((v >> 14) & 0x7F), char((v >> 7) & 0x7F), char(v & 0x7F)};
}

// A stretch of a file: bytes, then a hole of zeros that is never written.
struct Part {
  std::string bytes;
  off_t hole = 0;
};
using Parts = std::vector<Part>;
off_t Length(const Parts& parts) {
  off_t n = 0;
  for (const Part& p : parts) n += off_t(p.bytes.size()) + p.hole;
  return n;
}

// A frame of tag version v whose data is `data` followed by `hole` zeros.
Parts Frame(int v, const std::string& id, const std::string& data, off_t hole = 0, int flags = 0) {
  const uint32_t n = uint32_t(data.size() + hole);
  const std::string size = v == 2 ? Be32(n).substr(1) : v == 3 ? Be32(n) : Syncsafe(n);
  return {{id + size + (v == 2 ? "" : std::string{char(flags >> 8), char(flags)}) + data, hole}};
}
Parts TextFrame(int v, const std::string& id, const std::string& text) { return Frame(v, id, '\0' + text); }
// A picture of `size` zero bytes behind its type, description and format fields.
Parts Picture(int v, off_t size, int flags = 0) {
  return v == 2 ? Frame(2, "PIC", std::string("\0JPG\x03\0", 6), size) : Frame(v, "APIC", std::string("\0image/jpeg\0\x03\0", 14), size, flags);
}
std::string Deflated(const std::string& data) {
  std::vector<uint8_t> out(compressBound(data.size()));
  uLongf n = out.size();
  compress(out.data(), &n, reinterpret_cast<const Bytef*>(data.data()), data.size());
  return std::string(out.begin(), out.begin() + n);
}
// A compressed frame: v2.3 puts the inflated size ahead of the data, v2.4 in a length indicator.
Parts Compressed(int v, const std::string& id, const std::string& data, uint32_t declared) {
  return v == 3 ? Frame(3, id, Be32(declared) + Deflated(data), 0, 0x80) : Frame(4, id, Syncsafe(declared) + Deflated(data), 0, 0x09);
}
// An ID3v2 tag of these parts; a v2.4 footer when flags ask for one.
Parts Tag(int v, const std::vector<Parts>& frames, int flags = 0) {
  Parts body;
  for (const Parts& f : frames) body.insert(body.end(), f.begin(), f.end());
  const std::string head = std::string("ID3") + char(v) + '\0' + char(flags) + Syncsafe(uint32_t(Length(body)));
  body.insert(body.begin(), Part{head});
  if (flags & 0x10) body.push_back({"3DI" + head.substr(3)});
  return body;
}
// The tag with unsynchronisation applied after its header: a zero after each 0xFF that comes
// before a zero (a hole too) or a byte of 0xE0 and above.
Parts Unsync(Parts tag) {
  for (size_t i = 1; i < tag.size(); ++i) {
    std::string& b = tag[i].bytes;
    for (size_t j = 0; j < b.size(); ++j)
      if (uint8_t(b[j]) == 0xFF && (j + 1 == b.size() ? tag[i].hole > 0 : b[j + 1] == 0 || uint8_t(b[j + 1]) >= 0xE0))
        b.insert(++j, 1, '\0');
  }
  tag.front().bytes.replace(6, 4, Syncsafe(uint32_t(Length(tag) - 10)));
  return tag;
}
uint32_t Crc(const Parts& parts) {
  static const std::string kZeros(1 << 20, '\0');
  uLong crc = crc32(0, nullptr, 0);
  for (const Part& p : parts) {
    crc = crc32(crc, reinterpret_cast<const Bytef*>(p.bytes.data()), uInt(p.bytes.size()));
    for (off_t left = p.hole; left > 0; left -= off_t(kZeros.size()))
      crc = crc32(crc, reinterpret_cast<const Bytef*>(kZeros.data()), uInt(left < off_t(kZeros.size()) ? left : kZeros.size()));
  }
  return uint32_t(crc);
}
Parts Cat(const std::vector<Parts>& all) {
  Parts out;
  for (const Parts& p : all) out.insert(out.end(), p.begin(), p.end());
  return out;
}
const Parts kAudio = {{"\xff\xfb\x90\x64", 413}};
const Parts kV1 = {{"TAG" + std::string("v1 title").append(22, '\0') + std::string(94, '\0') + '\x11'}};

// What the reader takes from a tag: each frame's identifier in order, and the first text of
// the frames it reads texts from.
std::string Frames(struct id3_tag* tag) {
  std::string s;
  const struct id3_frame* f;
  for (unsigned int i = 0; tag != nullptr && (f = id3_tag_findframe(tag, "", i)) != nullptr; ++i) {
    s += std::string(" ") + f->id;
    const union id3_field* field = id3_frame_field(f, 1);
    if (f->id[0] != 'T' || field == nullptr || id3_field_getnstrings(field) == 0) continue;
    UniqueChars text(reinterpret_cast<char*>(id3_ucs4_utf8duplicate(id3_field_getstrings(field, 0))));
    s += "=" + std::string(text.get());
  }
  return s;
}

long PeakRssKib() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

// Each file gives the frames libid3tag reads from it whole, in a fraction of the memory, and
// the title a picture of any size no longer hides.
TEST_F(Id3Reader, TagsReadAsLibid3tagReadsTheWholeFile) {
  const off_t k9 = 9 << 20, k40 = 40 << 20;
  const std::string zeros(2 << 20, '\0'), png = std::string("\0image/png\0\x03\0", 13);
  const Parts updated = Cat({Picture(4, k9), TextFrame(4, "TPE1", "Updated")}), padded = Picture(3, k9);
  const uint32_t crc = Crc(updated);
  // Extended header: one flag byte (update, CRC, restrictions); a CRC given in six bytes is read from the first five.
  const std::string update_crc = Syncsafe(16) + std::string("\x01\x70\0\x06", 4) + char(crc >> 28) + Syncsafe(crc) +
                                 std::string("\0\x01\0", 3);
  const struct {
    const char* name;
    Parts file;
    const char* title;  // stored by the reader, with no detector answer
  } cases[] = {
      {"v23_9mib_picture", Cat({Tag(3, {TextFrame(3, "TIT2", "Title"), Picture(3, k9), TextFrame(3, "TPE1", "Artist"),
                                        TextFrame(3, "TCON", "(17)"), Frame(3, "YTCP", "")}), kAudio}), "Title"},
      {"v24_40mib_picture_unsynchronised", Cat({Tag(4, {Picture(4, k40, 0x02), TextFrame(4, "TALB", "Album")}), kAudio}), "<null>"},
      {"v22_9mib_picture", Cat({Tag(2, {Picture(2, k9), TextFrame(2, "TT2", "Title 22"), Frame(2, "TCP", "\0""1")}), kAudio}), "Title 22"},
      {"v23_unsynchronised_9mib_picture",
       Cat({Unsync(Tag(3, {TextFrame(3, "TIT2", "a\xff\xe0"), Picture(3, k9), TextFrame(3, "TPE1", "\xff\xfe")}, 0x80)),
            kAudio}), "a\xc3\xbf\xc3\xa0"},
      {"v23_compressed_9mib_picture",
       Cat({Tag(3, {Compressed(3, "APIC", png + std::string(k9, '\0'), uint32_t(k9) + 13),
                    Compressed(3, "TIT2", std::string("\0Compressed title", 17), 17)}), kAudio}), "Compressed title"},
      {"v24_compressed_picture_wrong_size",
       Cat({Tag(4, {TextFrame(4, "TIT2", "Lost"), Compressed(4, "APIC", png + zeros, 40 << 20)}),
            kAudio, kV1}), "v1 title"},
      {"v23_compressed_declares_2gib",
       Cat({Tag(3, {TextFrame(3, "TPE1", "Artist"), Compressed(3, "TALB", "\0Album", 0x80000000u)}), kAudio, kV1}), "v1 title"},
      {"v24_seek_to_huge_tag",
       Cat({Tag(4, {TextFrame(4, "TIT2", "Start"), Frame(4, "SEEK", Be32(417))}), kAudio,
            Tag(4, {Picture(4, 64 << 20), TextFrame(4, "TIT2", "Far title")}), kAudio}), "Far title"},
      {"v24_chain_of_three_tags",
       Cat({Tag(4, {TextFrame(4, "TIT2", "First"), Frame(4, "SEEK", Be32(417))}), kAudio,
            Tag(4, {Compressed(4, "PRIV", zeros, 2 << 20), TextFrame(4, "TPE1", "Second"), Frame(4, "SEEK", Be32(0))}),
            Tag(4, {Compressed(4, "GEOB", zeros, 2 << 20), TextFrame(4, "TALB", "Third"), Picture(4, k9)}), kAudio, kV1}),
       "<null>"},
      {"v24_footer_update_with_crc_over_picture",
       Cat({Tag(3, {TextFrame(3, "TIT2", "Kept")}), kAudio,
            Tag(4, {{{update_crc}}, updated}, 0x50), kV1}), "Kept"},
      {"v23_extended_header_padding_crc",
       Cat({Tag(3, {{{Be32(10) + std::string("\x80\0\0\0\0\x10", 6) + Be32(Crc(padded))}}, padded, {{std::string(16, '\0')}}},
                0x40),
            kAudio, kV1}), "<null>"},
      {"only_id3v1", Cat({kAudio, kV1}), "v1 title"},
  };
  for (const auto& c : cases) ASSERT_TRUE(write_pieces(stub_.File(c.name), Length(c.file), [&] {
    Pieces pieces;
    off_t at = 0;
    for (const Part& p : c.file) {
      pieces.push_back({at, std::vector<uint8_t>(p.bytes.begin(), p.bytes.end())});
      at += off_t(p.bytes.size()) + p.hole;
    }
    return pieces;
  }(), false)) << c.name;

  std::vector<std::string> ours;
  const long before = PeakRssKib();
  const long long read_before = bytes_read_so_far();
  for (const auto& c : cases) {
    Clear();
    info_.type = strdup("mp3");
    EXPECT_EQ(scan_get_mp3tags(stub_.File(c.name).c_str(), &info_), 0) << c.name;
    EXPECT_EQ(Text(info_.title), c.title) << c.name;
    Fd fd(open(stub_.File(c.name).c_str(), O_RDONLY));
    struct id3_tag* tag = id3_read_file_tags(fd.fd);
    ours.push_back(Frames(tag));
    id3_tag_delete(tag);
  }
  EXPECT_LT(PeakRssKib() - before, 32 * 1024);
  EXPECT_LT(bytes_read_so_far() - read_before, 8 << 20);  // holes are stepped over, not read
  for (size_t i = 0; i < ours.size(); ++i) {
    struct id3_file* file = id3_file_open(stub_.File(cases[i].name).c_str(), ID3_FILE_MODE_READONLY);
    ASSERT_NE(file, nullptr) << cases[i].name;
    EXPECT_EQ(ours[i], Frames(id3_file_tag(file))) << cases[i].name;
    id3_file_close(file);
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
