#include "metadata/video.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "../sparse_file.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
Bytes zeros(size_t n) { return Bytes(n, 0); }

// Start codes and headers as an encoder writes them.
Bytes sequence(int width, int height, int aspect, int rate, uint32_t bitrate = 0x3FFFF) {
  return Bytes{0, 0, 1, 0xB3, uint8_t(width >> 4), uint8_t((width & 15) << 4 | height >> 8),
               uint8_t(height), uint8_t(aspect << 4 | rate), uint8_t(bitrate >> 10),
               uint8_t(bitrate >> 2), uint8_t((bitrate & 3) << 6 | 0x20), 0x00};
}
Bytes sequence_extension(int n = 0, int d = 0) {
  return Bytes{0, 0, 1, 0xB5, 0x14, 0x8A, 0x00, 0x01, 0x00, uint8_t(n << 5 | d)};
}
Bytes display_extension(int video_format) {
  return Bytes{0, 0, 1, 0xB5, uint8_t(0x20 | video_format << 1), 0x0B, 0x42, 0x12, 0x00};
}
Bytes picture_coding_extension() { return Bytes{0, 0, 1, 0xB5, 0x8F, 0xFF, 0xF3, 0x41, 0x80}; }
Bytes user_data() { return Bytes{0, 0, 1, 0xB2, 'x', 'y'}; }
Bytes gop(int h, int m, int s, bool marker = true) {
  const uint32_t tc = uint32_t(h) << 26 | uint32_t(m) << 20 | (marker ? 1u : 0u) << 19 |
                      uint32_t(s) << 13;
  return Bytes{0, 0, 1, 0xB8, uint8_t(tc >> 24), uint8_t(tc >> 16), uint8_t(tc >> 8), uint8_t(tc)};
}
Bytes picture() { return Bytes{0, 0, 1, 0x00, 0x00, 0x0F, 0xFF, 0xF8} + Bytes(20, 0x55); }
Bytes pack() { return Bytes{0, 0, 1, 0xBA, 0x44, 0, 4, 0, 4, 1, 0, 0x03, 0xFF, 0xF8}; }

struct Probe {
  int result;
  VideoInfo info;
  std::string out;
};

class VideoFiles : public testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/video_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
  }
  void TearDown() override {
    for (const std::string& f : files_) unlink(f.c_str());
    rmdir(dir_.c_str());
  }
  std::string write(const std::string& name, const Bytes& bytes, off_t size = -1) {
    const std::string path = dir_ + "/" + name;
    FILE* f = fopen(path.c_str(), "wb");
    EXPECT_NE(f, nullptr);
    if (f == nullptr) return path;
    if (!bytes.empty()) fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    if (size >= 0) {
      EXPECT_EQ(truncate(path.c_str(), size), 0);  // sparse: no disk used
    }
    files_.push_back(path);
    return path;
  }
  Probe probe_bytes(const Bytes& bytes, bool want_duration = false) {
    return probe(write("clip.mpg", bytes), want_duration);
  }

 public:
  // As the walk calls it: a cleared record, or the request marker set.
  static Probe probe(const std::string& path, bool want_duration = false) {
    Probe p{};
    memset(&p.info, 0, sizeof p.info);
    p.info.bitrate = 12345;  // must not survive any call
    if (want_duration) p.info.duration = kDurationRequest;
    testing::internal::CaptureStdout();
    p.result = get_video_info(path.c_str(), &p.info);
    fflush(stdout);
    p.out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(p.info.bitrate, 0) << path;
    return p;
  }

 protected:
  std::string dir_;
  std::vector<std::string> files_;
};

// ---------------------------------------------------------------------------
// Files made by tests/data/make_pictures.sh; width, height and rate as
// ffprobe reports them.

struct Sample {
  const char* file;
  int32_t width, height;
  int32_t mpeg_type;
  int32_t frame_rate;  // code: 3 is 25 Hz, 4 is 29.97 Hz
  int32_t tv_system;
};

const Sample kSamples[] = {
    {"mpeg1_pal.mpg", 352, 288, 1, 3, 1},
    {"mpeg1_ntsc.mpg", 352, 240, 1, 4, 2},
    {"mpeg1_ratio12.mpg", 352, 240, 1, 3, 2},  // aspect code beats the 25 Hz rate
    {"mpeg1_ratio8.mpg", 352, 288, 1, 4, 1},
    {"mpeg2_pal.mpg", 720, 576, 2, 3, 1},
    {"mpeg2_ntsc.mpeg", 720, 480, 2, 4, 2},
    {"mpeg2_pal_display.MPG", 720, 576, 2, 3, 1},  // from the display extension
};

class VideoSamples : public testing::TestWithParam<Sample> {};

TEST_P(VideoSamples, ReadsPictureSizeAndSystem) {
  const Sample& s = GetParam();
  const std::string path = std::string(MEDIAWALK_TEST_DATA) + "/pictures/" + s.file;
  const Probe p = VideoFiles::probe(path);
  EXPECT_EQ(p.result, 0);
  EXPECT_EQ(p.out, "");
  EXPECT_EQ(p.info.width, s.width);
  EXPECT_EQ(p.info.height, s.height);
  EXPECT_EQ(p.info.mpeg_type, s.mpeg_type);
  EXPECT_EQ(p.info.frame_rate, s.frame_rate);
  EXPECT_EQ(p.info.tv_system, s.tv_system);
  EXPECT_EQ(p.info.duration, 0);

  // One second of video: every time code lies in second 0.
  const Probe timed = VideoFiles::probe(path, true);
  EXPECT_EQ(timed.result, 0);
  EXPECT_EQ(timed.info.duration, 1);
  EXPECT_EQ(timed.info.width, s.width);
}

INSTANTIATE_TEST_SUITE_P(Real, VideoSamples, testing::ValuesIn(kSamples),
                         [](const testing::TestParamInfo<Sample>& p) {
                           std::string n = p.param.file;
                           for (char& c : n) {
                             if (c == '.') c = '_';
                           }
                           return n;
                         });

// ---------------------------------------------------------------------------
// Extension gate, judged from the path's last dot.

struct GateCase {
  const char* name;
  bool accepted;
};

class VideoGate : public VideoFiles, public testing::WithParamInterface<GateCase> {};

TEST_P(VideoGate, OnlyMpegExtensionsAreOpened) {
  const GateCase& c = GetParam();
  // A real stream under each name: only the name decides.
  const std::string path =
      write(c.name, pack() + sequence(352, 288, 8, 3) + gop(0, 0, 0) + picture() + zeros(16));
  const Probe p = probe(path);
  if (c.accepted) {
    EXPECT_EQ(p.result, 0);
    EXPECT_EQ(p.info.width, 352);
  } else {
    EXPECT_EQ(p.result, -1);
    EXPECT_EQ(p.out, "");
    EXPECT_EQ(p.info.width, 0);
    EXPECT_EQ(p.info.tv_system, 0);
  }
}

const GateCase kGate[] = {
    {"a.mpg", true},    {"a.MPG", true},      {"a.Mpeg", true},      {"a.mpeg2", true},
    {"a.MPEG2", true},  {"x.avi.mpg", true},  {"a.vob", false},      {"a.avi", false},
    {"a.mp4", false},   {"a.mpeg21", false},  {"a.mpg2", false},     {"a.mpg.bak", false},
    {"mpg", false},     {"a.m2v", false},     {"clip_mpg", false},
};

INSTANTIATE_TEST_SUITE_P(Names, VideoGate, testing::ValuesIn(kGate),
                         [](const testing::TestParamInfo<GateCase>& p) {
                           std::string n;
                           for (const char* c = p.param.name; *c; ++c) {
                             n += isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
                           }
                           return n;
                         });

TEST_F(VideoFiles, MissingFileIsReported) {
  const Probe p = probe(dir_ + "/none.mpeg");
  EXPECT_EQ(p.result, -1);
  EXPECT_EQ(p.out, "Can not open <" + dir_ + "/none.mpeg> file\n");
}

TEST_F(VideoFiles, DotInFolderNameDoesNotCount) {
  const Probe p = probe(dir_ + "/x.mpg/clip");
  EXPECT_EQ(p.result, -1);
  EXPECT_EQ(p.out, "");
}

// ---------------------------------------------------------------------------
// Byte-built streams.

struct StreamCase {
  const char* name;
  Bytes stream;
  int32_t width, height, mpeg_type, frame_rate, tv_system;
  const char* out;
};

class VideoStreams : public VideoFiles, public testing::WithParamInterface<StreamCase> {};

TEST_P(VideoStreams, Parse) {
  const StreamCase& c = GetParam();
  const Probe p = probe_bytes(c.stream + picture() + zeros(64));
  EXPECT_EQ(p.result, 0);
  EXPECT_EQ(p.info.width, c.width);
  EXPECT_EQ(p.info.height, c.height);
  EXPECT_EQ(p.info.mpeg_type, c.mpeg_type);
  EXPECT_EQ(p.info.frame_rate, c.frame_rate);
  EXPECT_EQ(p.info.tv_system, c.tv_system);
  EXPECT_EQ(p.out, c.out);
}

const StreamCase kStreams[] = {
    {"Mpeg1Aspect12", sequence(352, 288, 12, 3) + gop(0, 0, 0), 352, 288, 1, 3, 2, ""},
    {"Mpeg1Aspect6", sequence(352, 288, 6, 3) + gop(0, 0, 0), 352, 288, 1, 3, 2, ""},
    {"Mpeg1Aspect8", sequence(352, 240, 8, 4) + gop(0, 0, 0), 352, 240, 1, 4, 1, ""},
    {"Mpeg1Aspect3", sequence(352, 240, 3, 4) + gop(0, 0, 0), 352, 240, 1, 4, 1, ""},
    {"Mpeg1SquarePixelsByRate", sequence(352, 288, 1, 3) + gop(0, 0, 0), 352, 288, 1, 3, 1, ""},
    {"Mpeg1Rate50Hz", sequence(352, 288, 1, 6) + gop(0, 0, 0), 352, 288, 1, 6, 1, ""},
    {"Mpeg1RateFilmNtsc", sequence(352, 288, 1, 1) + gop(0, 0, 0), 352, 288, 1, 1, 2, ""},
    {"Mpeg1RateUnknownStays", sequence(352, 288, 1, 0) + gop(0, 0, 0), 352, 288, 1, 0, -1, ""},
    {"Mpeg1LargestSize", sequence(4095, 4095, 1, 5) + gop(0, 0, 0), 4095, 4095, 1, 5, 2, ""},
    {"Mpeg1UserDataBeforeGop", sequence(352, 288, 1, 4) + user_data() + gop(0, 0, 0), 352, 288,
     1, 4, 2, ""},
    {"PackHeadersAround", pack() + pack() + sequence(352, 288, 8, 3) + pack() + gop(0, 0, 0), 352,
     288, 1, 3, 1, ""},
    {"Mpeg2Rate4NoDisplay", sequence(720, 480, 2, 4) + sequence_extension() + gop(0, 0, 0), 720,
     480, 2, 4, 2, ""},
    {"Mpeg2Rate3NoDisplay", sequence(720, 576, 2, 3) + sequence_extension() + gop(0, 0, 0), 720,
     576, 2, 3, 1, ""},
    {"Mpeg2RateExtensionMultiplies",
     sequence(720, 576, 2, 3) + sequence_extension(1, 0) + gop(0, 0, 0), 720, 576, 2, 6, 1,
     "frame_rate_extension_n/_d 1 0\n"},
    {"Mpeg2RateExtensionDivides240",
     sequence(720, 240, 2, 4) + sequence_extension(0, 1) + gop(0, 0, 0), 720, 240, 2, 2, 2,
     "frame_rate_extension_n/_d 0 1\n"},
    {"Mpeg2RateExtensionDivides576",
     sequence(720, 576, 2, 4) + sequence_extension(0, 1) + gop(0, 0, 0), 720, 576, 2, 2, 1,
     "frame_rate_extension_n/_d 0 1\n"},
    {"Mpeg2DisplayNtscBeatsRate",
     sequence(720, 576, 2, 3) + sequence_extension() + display_extension(2) + gop(0, 0, 0), 720,
     576, 2, 3, 2, ""},
    {"Mpeg2DisplayPalBeatsRate",
     sequence(720, 480, 2, 4) + sequence_extension() + display_extension(1) + gop(0, 0, 0), 720,
     480, 2, 4, 1, ""},
    {"Mpeg2DisplayUnspecifiedFallsToRate",
     sequence(720, 480, 2, 4) + sequence_extension() + display_extension(5) + gop(0, 0, 0), 720,
     480, 2, 4, 2, ""},
    // A video format the rate cannot replace stays as it stands.
    {"Mpeg2DisplaySecamKeptWithOddRate",
     sequence(720, 576, 2, 9) + sequence_extension() + display_extension(3) + gop(0, 0, 0), 720,
     576, 2, 9, 3, ""},
    {"Mpeg2SecondExtensionNotDisplay",
     sequence(720, 576, 2, 4) + sequence_extension() + picture_coding_extension() +
         gop(0, 0, 0),
     720, 576, 2, 4, 2, ""},
    // The group of pictures ends the search before a later display extension.
    {"Mpeg2DisplayAfterGopUnseen",
     sequence(720, 576, 2, 4) + sequence_extension() + gop(0, 0, 0) + display_extension(1), 720,
     576, 2, 4, 2, ""},
    // The first start code behind the sequence header decides the version.
    {"UserDataBeforeExtensionMeansMpeg1",
     sequence(720, 576, 12, 3) + user_data() + sequence_extension(1, 1) + gop(0, 0, 0), 720, 576,
     1, 3, 2, ""},
};

INSTANTIATE_TEST_SUITE_P(Streams, VideoStreams, testing::ValuesIn(kStreams),
                         [](const testing::TestParamInfo<StreamCase>& p) { return p.param.name; });

// Every position of the sequence header and the group of pictures across
// the first block's end, where blocks overlap.
TEST_F(VideoFiles, HeadersAcrossBlockBoundary) {
  for (size_t at = 4080; at <= 4100; ++at) {
    Probe p = probe_bytes(Bytes(at, 0x55) + sequence(352, 240, 12, 4) + gop(0, 0, 0) + picture());
    EXPECT_EQ(p.result, 0) << at;
    EXPECT_EQ(p.info.width, 352) << at;
    // Here the blocks start at the display extension (22), so the second
    // begins at 22 + 4092.
    const Bytes head = sequence(720, 576, 2, 3) + sequence_extension() + display_extension(2);
    p = probe_bytes(head + Bytes(at + 26 - head.size(), 0x55) + gop(0, 0, 0) + picture());
    EXPECT_EQ(p.result, 0) << at;
    EXPECT_EQ(p.info.mpeg_type, 2) << at;
    EXPECT_EQ(p.info.tv_system, 2) << at;
  }
}

TEST_F(VideoFiles, SequenceWithoutGopWithinLimit) {
  const Probe p = probe_bytes(sequence(352, 288, 8, 3) + picture() + zeros(200000));
  EXPECT_EQ(p.result, -1);
  EXPECT_EQ(p.out, "find hdr terminated!\n");
  EXPECT_EQ(p.info.width, 0);  // the parse never ran
}

TEST_F(VideoFiles, SequenceWithoutGopBeforeEnd) {
  const std::string path = write("short.mpg", sequence(352, 288, 8, 3) + picture() + zeros(9000));
  const Probe p = probe(path);
  EXPECT_EQ(p.result, -1);
  EXPECT_EQ(p.out, "\nEnd of file2(" + path + ")\n");
}

TEST_F(VideoFiles, EmptyAndTinyFiles) {
  for (size_t len : {0, 1, 4, 5, 11}) {
    const std::string path = write("tiny.mpg", Bytes(len, 0));
    const Probe p = probe(path);
    EXPECT_EQ(p.result, -1) << len;
    EXPECT_EQ(p.out, "\nEnd of file2(" + path + ")\n") << len;
  }
}

TEST_F(VideoFiles, SearchLimitGrowsWithFileSize) {
  // A group of pictures 110000 bytes in: past the fixed limit, but within
  // 1/120 of a 14.4 MB file.
  const Bytes stream = sequence(352, 288, 8, 3) + Bytes(110000, 0x55) + gop(0, 0, 0) + picture();
  Probe p = probe(write("big.mpg", stream, 120 * 120000));
  EXPECT_EQ(p.result, 0);
  EXPECT_EQ(p.info.width, 352);
  p = probe(write("small.mpg", stream + zeros(1000)));
  EXPECT_EQ(p.result, -1);
  EXPECT_EQ(p.out, "find hdr terminated!\n");
}

// A hole of a sparse file reads as zeros. The search steps over holes, with
// the result the same file gives with its zeros written out: headers behind
// a hole, a start code begun in a hole's last zeros, the limit met in a hole
// or just behind it (blocks stop at 4092 * k; the one at 102300 is the last
// scanned under the 102400-byte limit).
struct HoleCase {
  const char* name;
  off_t size;
  Pieces pieces;
  int result;
};

class VideoHoles : public VideoFiles, public testing::WithParamInterface<HoleCase> {};

TEST_P(VideoHoles, HoleReadsLikeWrittenZeros) {
  const HoleCase& c = GetParam();
  Probe p[2];
  for (const bool dense : {false, true}) {
    ASSERT_TRUE(write_pieces(dir_ + "/hole.mpg", c.size, c.pieces, dense));
    p[dense] = probe(dir_ + "/hole.mpg");
    unlink((dir_ + "/hole.mpg").c_str());
  }
  EXPECT_EQ(p[0].result, c.result);
  EXPECT_EQ(p[0].result, p[1].result);
  EXPECT_EQ(p[0].out, p[1].out);
  EXPECT_EQ(p[0].info.width, p[1].info.width);
  EXPECT_EQ(p[0].info.mpeg_type, p[1].info.mpeg_type);
  EXPECT_EQ(p[0].info.tv_system, p[1].info.tv_system);
}

const Bytes kSeq = sequence(352, 288, 8, 3);
const Bytes kGop = gop(0, 0, 0) + picture();

const HoleCase kHoles[] = {
    {"GopBehindAHole", 1 << 20, {{0, kSeq}, {90000, kGop}}, 0},
    {"StartCodeBegunInTheHole", 1 << 20, {{65536, Bytes(kSeq.begin() + 2, kSeq.end()) + kGop}}, 0},
    {"GopInTheLastBlockBeforeTheLimit", 1 << 20, {{0, kSeq}, {106391, kGop}}, 0},
    {"GopBehindTheLimit", 1 << 20, {{0, kSeq}, {106392, kGop}}, -1},
    {"LimitInsideAHole", 1 << 20, {{0, kSeq}, {300000, kGop}}, -1},
    {"LimitGrownBySize", 16 << 20, {{0, kSeq}, {130000, kGop}}, 0},
    {"HoleToTheEnd", 60000, {{0, kSeq}}, -1},
    {"Mpeg2ExtensionsBetweenHoles", 1 << 20,
     {{0, sequence(720, 576, 2, 4) + sequence_extension()}, {50000, display_extension(1)},
      {80000, kGop}},
     0},
};

INSTANTIATE_TEST_SUITE_P(Sparse, VideoHoles, testing::ValuesIn(kHoles),
                         [](const testing::TestParamInfo<HoleCase>& p) { return p.param.name; });

// 16 GiB of hole behind a sequence header: the search would read 1/120 of
// it before giving up.
TEST_F(VideoFiles, HoleToTheLimitIsNotRead) {
  ASSERT_TRUE(write_pieces(dir_ + "/big.mpg", off_t(16) << 30, {{0, kSeq}}, false));
  files_.push_back(dir_ + "/big.mpg");
  const long long before = bytes_read_so_far();
  ASSERT_GE(before, 0) << "no read count in /proc/self/io";
  const Probe p = probe(dir_ + "/big.mpg");
  EXPECT_EQ(p.out, "find hdr terminated!\n");
  EXPECT_LT(bytes_read_so_far() - before, 1 << 20);
}

TEST_F(VideoFiles, LimitIsCheckedWhereAStageEnds) {
  // Block scans stop at the sequence header; if that lies past the limit
  // the search ends there, though the group of pictures follows at once.
  const Bytes tail = sequence(352, 288, 8, 3) + gop(0, 0, 0) + picture() + zeros(5000);
  Probe p = probe_bytes(Bytes(102000, 0x55) + tail);
  EXPECT_EQ(p.result, 0);
  p = probe_bytes(Bytes(102500, 0x55) + tail);
  EXPECT_EQ(p.result, -1);
  EXPECT_EQ(p.out, "find hdr terminated!\n");
}

TEST_F(VideoFiles, GopHeaderCutByEndOfFile) {
  // The group of pictures start code is the last thing the search can see;
  // its 8-byte read comes up short.
  const std::string path = write("cut.mpg", sequence(352, 288, 12, 3) + Bytes{0, 0, 1, 0xB8, 0});
  const Probe p = probe(path);
  EXPECT_EQ(p.result, -1);
  EXPECT_EQ(p.out, "\nRead error8(" + path + ")\n");
  EXPECT_EQ(p.info.width, 352);  // what was read stays
  EXPECT_EQ(p.info.tv_system, 2);
}

// ---------------------------------------------------------------------------
// Playing time from group-of-pictures time codes.

// Small pictures: the jump after a time code is shorter than a block, so
// every group of pictures is seen.
Bytes timed(const std::vector<Bytes>& gops, int width = 16, int height = 16) {
  Bytes s = sequence(width, height, 1, 3);
  for (const Bytes& g : gops) s = s + g + picture() + Bytes(1000, 0x55);
  return s;
}

struct DurationCase {
  const char* name;
  Bytes stream;
  int32_t seconds;
};

class VideoDuration : public VideoFiles, public testing::WithParamInterface<DurationCase> {};

TEST_P(VideoDuration, AddsRunsOfTimeCodes) {
  const DurationCase& c = GetParam();
  const Probe p = probe_bytes(c.stream, true);
  EXPECT_EQ(p.result, 0);
  EXPECT_EQ(p.out, "");
  EXPECT_EQ(p.info.duration, c.seconds);
}

const DurationCase kDurations[] = {
    {"OneRun", timed({gop(0, 0, 0), gop(0, 0, 1), gop(0, 0, 2), gop(0, 0, 3)}), 4},
    {"TenSecondJump",
     timed({gop(0, 0, 0), gop(0, 0, 1), gop(0, 0, 2), gop(0, 0, 3), gop(0, 0, 13),
            gop(0, 0, 14)}),
     6},
    {"ThreeSecondStepExtends", timed({gop(0, 0, 0), gop(0, 0, 3), gop(0, 0, 6)}), 7},
    {"FourSecondStepSplits", timed({gop(0, 0, 0), gop(0, 0, 4)}), 2},
    {"JumpBackSplits", timed({gop(0, 0, 10), gop(0, 0, 11), gop(0, 0, 2), gop(0, 0, 3)}), 4},
    {"SmallStepBackIgnored", timed({gop(0, 0, 5), gop(0, 0, 6), gop(0, 0, 4), gop(0, 0, 7)}), 3},
    {"HoursAndMinutes", timed({gop(1, 59, 58), gop(1, 59, 59), gop(2, 0, 0)}), 3},
    {"NoMarkerIgnored", timed({gop(0, 0, 0), gop(0, 0, 30, false), gop(0, 0, 1)}), 2},
    {"BadMinutesIgnored", timed({gop(0, 0, 0), gop(0, 60, 0), gop(0, 0, 1)}), 2},
    {"BadSecondsIgnored", timed({gop(0, 0, 0), gop(0, 0, 61), gop(0, 0, 1)}), 2},
    {"ZeroPictureSizeStillAdvances", timed({gop(0, 0, 0), gop(0, 0, 20)}, 0, 0), 2},
    // 720 x 576 bytes ahead of the block's start, less its length: the
    // group at 5000 is jumped over, the one at 420000 seen.
    {"JumpByPictureSize",
     sequence(720, 576, 2, 3) + sequence_extension() + gop(0, 0, 0) + Bytes(5000 - 22, 0x55) +
         gop(0, 1, 40) + Bytes(420000 - 5008, 0x55) + gop(0, 0, 1) + zeros(100),
     2},
    // MPEG-1 at 40000 bit/s jumps 5000 bytes from the block's start, less
    // the block, so the group at 500 is passed over and the one at 2000 seen.
    {"Mpeg1JumpByBitrate",
     sequence(352, 288, 1, 3, 100) + gop(0, 0, 0) + Bytes(500 - 20, 0x55) + gop(0, 0, 50) +
         Bytes(1500 - 8, 0x55) + gop(0, 0, 1) + zeros(5000),
     2},
    // The same without a bitrate jumps by the picture size, past both.
    {"Mpeg1VariableRateJumpsByPictureSize",
     sequence(352, 288, 1, 3) + gop(0, 0, 0) + Bytes(500 - 20, 0x55) + gop(0, 0, 50) +
         Bytes(1500 - 8, 0x55) + gop(0, 0, 1) + zeros(5000),
     1},
};

INSTANTIATE_TEST_SUITE_P(TimeCodes, VideoDuration, testing::ValuesIn(kDurations),
                         [](const testing::TestParamInfo<DurationCase>& p) { return p.param.name; });

TEST_F(VideoFiles, DurationOnlyWhenRequested) {
  const Bytes stream = timed({gop(0, 0, 0), gop(0, 0, 1)});
  Probe p = probe_bytes(stream);
  EXPECT_EQ(p.info.duration, 0);
  // Any value but the marker is not a request.
  const std::string path = write("other.mpg", stream);
  VideoInfo info;
  memset(&info, 0, sizeof info);
  info.duration = kDurationRequest + 1;
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_video_info(path.c_str(), &info), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(info.duration, 0);
  EXPECT_EQ(info.bitrate, 0);
}

TEST_F(VideoFiles, FailedSearchDoesNotLeaveTheMarker) {
  const Probe p = probe_bytes(zeros(100), true);
  EXPECT_EQ(p.result, -1);
  EXPECT_EQ(p.info.duration, 0);
  const Probe q = probe(dir_ + "/clip.vob", true);
  EXPECT_EQ(q.result, -1);
  EXPECT_EQ(q.info.duration, 0);
}

}  // namespace
