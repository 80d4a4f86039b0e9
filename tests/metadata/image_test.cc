#include "metadata/image.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "../sparse_file.h"
#include "platform/text.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Measured {
  int result;
  ImageInfo info;
  std::string out;  // what was printed
};

// Measures a file as the walk does: a cleared record with the path filled.
Measured measure(const std::string& path) {
  Measured m{};
  memset(&m.info, 0, sizeof m.info);
  copy_bounded(m.info.path, path.c_str());
  testing::internal::CaptureStdout();
  m.result = get_img_size(&m.info);
  fflush(stdout);
  m.out = testing::internal::GetCapturedStdout();
  return m;
}

class ImageFiles : public testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/image_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
  }
  void TearDown() override {
    for (const std::string& f : files_) unlink(f.c_str());
    for (auto d = dirs_.rbegin(); d != dirs_.rend(); ++d) rmdir(d->c_str());
    rmdir(dir_.c_str());
  }
  std::string write(const std::string& name, const Bytes& bytes) {
    const std::string path = dir_ + "/" + name;
    FILE* f = fopen(path.c_str(), "wb");
    EXPECT_NE(f, nullptr);
    if (f == nullptr) return path;
    if (!bytes.empty()) fwrite(bytes.data(), 1, bytes.size(), f);
    fclose(f);
    files_.push_back(path);
    return path;
  }
  Measured measure_bytes(const Bytes& bytes, const std::string& name = "picture.jpg") {
    return measure(write(name, bytes));
  }

  std::string dir_;
  std::vector<std::string> files_;
  std::vector<std::string> dirs_;
};

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
Bytes zeros(size_t n) { return Bytes(n, 0); }
Bytes text(const char* s) { return Bytes(s, s + strlen(s)); }

// ---------------------------------------------------------------------------
// Files made by tests/data/make_pictures.sh. Width and height as identify
// reports them; depth as this reader defines it.

struct Sample {
  const char* file;
  int32_t type;
  int32_t width, height, depth;
};

const Sample kSamples[] = {
    {"grey8.png", 4, 37, 23, 8},
    {"grey16.png", 4, 37, 23, 16},
    {"rgb8.png", 4, 37, 23, 24},
    {"rgb16.png", 4, 37, 23, 48},
    {"palette4.png", 4, 37, 23, 4},
    {"palette8.png", 4, 37, 23, 8},
    {"greyalpha8.png", 4, 37, 23, 16},
    {"greyalpha16.png", 4, 37, 23, 32},
    {"rgba8.png", 4, 37, 23, 32},
    {"rgba16.png", 4, 37, 23, 48},  // deliberately 48, not 64
    {"plasma.gif", 2, 41, 29, 8},
    {"rgb24.bmp", 0, 37, 23, 24},
    {"baseline.jpg", 1, 37, 23, 24},
    {"progressive.jpg", 1, 37, 23, 24},
    // One component gives a frame header of length 11, which is not taken.
    {"grey.jpg", 1, 0, 0, 0},
    {"grey8_lsb.tif", 3, 37, 23, 8},
    {"grey8_msb.tif", 3, 37, 23, 8},
    {"rgb8_lsb.tif", 3, 37, 23, 24},
    {"rgb8_msb.tif", 3, 37, 23, 24},
};

class ImageSamples : public testing::TestWithParam<Sample> {};

TEST_P(ImageSamples, MeasuresAsTheImageToolDoes) {
  const Sample& s = GetParam();
  const Measured m = measure(std::string(MEDIAWALK_TEST_DATA) + "/pictures/" + s.file);
  EXPECT_EQ(m.result, 1);
  EXPECT_EQ(m.out, "");
  EXPECT_EQ(m.info.type, s.type);
  EXPECT_EQ(m.info.width, s.width);
  EXPECT_EQ(m.info.height, s.height);
  EXPECT_EQ(m.info.depth, s.depth);
  EXPECT_GT(m.info.file_size, 0u);
  EXPECT_EQ(m.info.file, nullptr);  // the stream does not outlive the call
}

INSTANTIATE_TEST_SUITE_P(Real, ImageSamples, testing::ValuesIn(kSamples),
                         [](const testing::TestParamInfo<Sample>& p) {
                           std::string n = p.param.file;
                           for (char& c : n) {
                             if (c == '.') c = '_';
                           }
                           return n;
                         });

// ---------------------------------------------------------------------------
// Dispatch on the first 10 bytes, read as text.

struct DispatchCase {
  const char* name;
  Bytes head;
  int result;
  int32_t type;
};

class ImageDispatch : public ImageFiles, public testing::WithParamInterface<DispatchCase> {};

TEST_P(ImageDispatch, PicksTheReaderByTheFirstBytes) {
  const DispatchCase& c = GetParam();
  const Measured m = measure_bytes(c.head + zeros(40));
  EXPECT_EQ(m.result, c.result);
  EXPECT_EQ(m.info.type, c.type);
  if (c.result == 0) {
    EXPECT_EQ(m.out, "Can't verify image file of type!!filename: " + files_.back() + "\n");
  } else {
    EXPECT_EQ(m.out, "");
  }
}

const DispatchCase kDispatch[] = {
    {"BmpAtStart", text("BM"), 1, 0},
    {"BmBehindJpegMarker", Bytes{0xFF, 0xD8, 'B', 'M'}, 1, 0},
    {"BmAnywhereInTen", text("xxxxxxxxBM"), 1, 0},
    {"BmBehindZeroIsNotSeen", Bytes{'x', 0, 'B', 'M'}, 0, 1},
    {"JpegMarker", Bytes{0xFF, 0xD8, 0xFF, 0xE0, 0, 0x10}, 1, 1},
    {"JpegMarkerNotFirst", Bytes{0, 0xFF, 0xD8}, 0, 1},
    {"Gif", text("GIF89a"), 1, 2},
    {"GifLaterInTen", text("..GIF"), 1, 2},
    {"TiffIntel", text("II*"), 1, 3},
    {"TiffMotorola", text("MM"), 1, 3},
    {"TiffLetters", text("xMMx"), 1, 3},
    {"Png", Bytes{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'}, 1, 4},
    {"PngCutAtSeven", Bytes{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A}, 0, 1},
    {"BmBeatsGif", text("GIFBM"), 1, 0},
    {"PlainText", text("hello, world\n"), 0, 1},
    {"Empty", Bytes{}, 0, 1},
};

INSTANTIATE_TEST_SUITE_P(Heads, ImageDispatch, testing::ValuesIn(kDispatch),
                         [](const testing::TestParamInfo<DispatchCase>& p) { return p.param.name; });

TEST_F(ImageFiles, TextFileNamedJpgIsNotMeasured) {
  const Measured m = measure_bytes(text("just some notes\nnothing else\n"), "notes.jpg");
  EXPECT_EQ(m.result, 0);
  EXPECT_EQ(m.info.type, 1);
  EXPECT_EQ(m.info.width, 0);
  EXPECT_EQ(m.out, "Can't verify image file of type!!filename: " + dir_ + "/notes.jpg\n");
}

TEST_F(ImageFiles, MissingFileIsReported) {
  const Measured m = measure(dir_ + "/nothing.png");
  EXPECT_EQ(m.result, 0);
  EXPECT_EQ(m.out, "get_img_size(): open file error\n");
}

TEST_F(ImageFiles, LongestAdmittedPathIsUsedWhole) {
  // The walk admits up to 511 bytes of path; none of it may be cut. Names
  // are at most 255 bytes, so the path goes through two folders.
  std::string rel = std::string(200, 'd');
  ASSERT_EQ(mkdir((dir_ + "/" + rel).c_str(), 0700), 0);
  dirs_.push_back(dir_ + "/" + rel);
  rel += "/" + std::string(200, 'e');
  ASSERT_EQ(mkdir((dir_ + "/" + rel).c_str(), 0700), 0);
  dirs_.push_back(dir_ + "/" + rel);
  const size_t used = dir_.size() + 1 + rel.size() + 1 + 4;
  ASSERT_LT(used, 511u);
  rel += "/" + std::string(511 - used, 'n') + ".png";
  const std::string path = write(rel, text("BM") + zeros(16) + Bytes{3, 0, 0, 0, 4, 0});
  ASSERT_EQ(path.size(), 511u);
  const Measured m = measure(path);
  EXPECT_EQ(m.result, 1);
  EXPECT_EQ(m.info.width, 3);
  EXPECT_EQ(m.info.height, 4);
}

// ---------------------------------------------------------------------------
// BMP and GIF: fixed fields, a short file reads as zeros.

TEST_F(ImageFiles, BmpTakesLow16BitsOfSizes) {
  Bytes b = text("BM") + zeros(30);
  const uint8_t width[4] = {0x45, 0x23, 0x01, 0x00};  // 0x12345
  const uint8_t height[4] = {0xFF, 0xFF, 0xFF, 0xFF};  // -1, top-down
  memcpy(&b[18], width, 4);
  memcpy(&b[22], height, 4);
  b[28] = 32;
  const Measured m = measure_bytes(b, "a.bmp");
  EXPECT_EQ(m.info.width, 0x2345);
  EXPECT_EQ(m.info.height, 0xFFFF);
  EXPECT_EQ(m.info.depth, 32);
  EXPECT_EQ(m.info.file_size, 32u);
}

TEST_F(ImageFiles, TruncatedBmpAndGifReadZeros) {
  Measured m = measure_bytes(Bytes{'B', 'M', 1, 2, 3}, "short.bmp");
  EXPECT_EQ(m.result, 1);
  EXPECT_EQ(m.info.width, 0);
  EXPECT_EQ(m.info.depth, 0);
  // GIF: packed byte missing, so one bit per pixel.
  m = measure_bytes(text("GIF89a") + Bytes{7, 0, 9}, "short.gif");
  EXPECT_EQ(m.result, 1);
  EXPECT_EQ(m.info.width, 7);
  EXPECT_EQ(m.info.height, 9);
  EXPECT_EQ(m.info.depth, 1);
}

TEST_F(ImageFiles, GifDepthFromColourTableSize) {
  const Measured m = measure_bytes(text("GIF87a") + Bytes{0x10, 0x01, 0x20, 0x00, 0xF2}, "a.gif");
  EXPECT_EQ(m.info.width, 0x110);
  EXPECT_EQ(m.info.height, 0x20);
  EXPECT_EQ(m.info.depth, 3);
}

// ---------------------------------------------------------------------------
// JPEG. The frame header is searched from offset 10 on.

Bytes frame(uint8_t marker, uint16_t height, uint16_t width, uint8_t components,
            uint8_t length = 0x11) {
  return Bytes{0xFF, marker, 0x00, length, 8, uint8_t(height >> 8), uint8_t(height),
               uint8_t(width >> 8), uint8_t(width), components};
}
const Bytes kJpegHead = {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10, 'J', 'F', 'I', 'F'};
constexpr uint8_t kBaseline = 0xC0;
constexpr uint8_t kProgressive = 0xC2;

struct JpegCase {
  const char* name;
  Bytes body;  // behind the 10-byte head
  int32_t width, height, depth;
};

class JpegScan : public ImageFiles, public testing::WithParamInterface<JpegCase> {};

TEST_P(JpegScan, FindsTheFrameHeader) {
  const JpegCase& c = GetParam();
  const Measured m = measure_bytes(kJpegHead + c.body);
  EXPECT_EQ(m.result, 1);
  EXPECT_EQ(m.info.type, 1);
  EXPECT_EQ(m.info.width, c.width);
  EXPECT_EQ(m.info.height, c.height);
  EXPECT_EQ(m.info.depth, c.depth);
}

const JpegCase kJpeg[] = {
    {"Baseline", zeros(20) + frame(kBaseline, 480, 640, 3) + zeros(30), 640, 480, 24},
    {"ThumbnailThenMain",
     zeros(5) + frame(kBaseline, 120, 160, 3) + zeros(50) + frame(kBaseline, 1200, 1600, 3) +
         zeros(30),
     1600, 1200, 24},
    {"ProgressiveFirstStops",
     frame(kProgressive, 600, 800, 3) + zeros(7) + frame(kBaseline, 1200, 1600, 3) + zeros(30),
     800, 600, 24},
    {"ProgressiveAfterBaselineWins",
     frame(kBaseline, 120, 160, 3) + frame(kProgressive, 600, 800, 1) + zeros(30), 800, 600, 8},
    {"OtherLengthNotTaken", frame(kBaseline, 480, 640, 1, 0x0B) + zeros(30), 0, 0, 0},
    {"OtherMarkerNotTaken", frame(0xC1, 480, 640, 3) + zeros(30), 0, 0, 0},
    {"NoFrameHeader", zeros(100), 0, 0, 0},
    {"TruncatedBeforeHeader", Bytes{0xFF, 0xDB, 0x00}, 0, 0, 0},
    // The last ten bytes of the scanned span lie beyond the file's end and
    // read as zeros: here the width and component count are gone.
    {"HeaderRunsPastEnd", zeros(4) + Bytes{0xFF, kBaseline, 0x00, 0x11, 8, 0x01, 0x02}, 0, 0x102,
     0},
    {"HeaderEndsAtFileEnd", zeros(4) + frame(kBaseline, 3, 4, 3), 4, 3, 24},
    {"HeaderIsWholeBody", frame(kProgressive, 5, 6, 4), 6, 5, 32},
};

INSTANTIATE_TEST_SUITE_P(Bodies, JpegScan, testing::ValuesIn(kJpeg),
                         [](const testing::TestParamInfo<JpegCase>& p) { return p.param.name; });

TEST_F(ImageFiles, JpegHeaderInsideFirstTenBytesIsNotSeen) {
  // The scan starts behind the bytes the format test consumed.
  const Measured m = measure_bytes(Bytes{0xFF, 0xD8} + frame(kBaseline, 9, 9, 3) + zeros(40));
  EXPECT_EQ(m.info.width, 0);
  const Measured n = measure_bytes(Bytes{0xFF, 0xD8} + zeros(8) + frame(kBaseline, 9, 9, 3));
  EXPECT_EQ(n.info.width, 9);
}

TEST_F(ImageFiles, TinyJpegReadsNothing) {
  for (size_t len : {2, 3, 9, 10, 11, 19}) {
    const Measured m = measure_bytes(Bytes{0xFF, 0xD8} + Bytes(len - 2, 0xFF));
    EXPECT_EQ(m.result, 1) << len;
    EXPECT_EQ(m.info.width, 0) << len;
    EXPECT_EQ(m.info.file_size, len);
  }
}

// A header at every position across the first and second window boundary,
// alone or behind a thumbnail that lies in the window before.
TEST_F(ImageFiles, JpegHeaderAcrossWindowBoundary) {
  for (size_t boundary : {kJpegScanChunk, 2 * kJpegScanChunk}) {
    for (size_t pos = boundary - 12; pos <= boundary + 2; ++pos) {
      for (bool thumbnail : {false, true}) {
        Bytes body(pos + 10 + 40, 0);
        if (thumbnail) {
          const Bytes t = frame(kBaseline, 1, 2, 3);
          std::copy(t.begin(), t.end(), body.begin() + 100);
        }
        const Bytes f = frame(kBaseline, 700, 900, 3);
        std::copy(f.begin(), f.end(), body.begin() + pos);
        const Measured m = measure_bytes(kJpegHead + body);
        EXPECT_EQ(m.info.width, 900) << pos << " " << thumbnail;
        EXPECT_EQ(m.info.height, 700) << pos;
        EXPECT_EQ(m.info.depth, 24) << pos;
      }
    }
  }
}

// The scan must agree with reading the whole file into a buffer of the
// file's size and testing every position that has its 10 bytes inside it.
void scan_whole_buffer(const Bytes& file, int32_t* w, int32_t* h, int32_t* d) {
  Bytes buf(file.size(), 0);
  if (file.size() > 10) std::copy(file.begin() + 10, file.end(), buf.begin());
  for (size_t i = 0; i + 10 <= buf.size(); ++i) {
    const uint8_t* p = &buf[i];
    if (p[0] != 0xFF || p[2] != 0 || p[3] != 0x11 || (p[1] != 0xC0 && p[1] != 0xC2)) continue;
    *h = p[5] << 8 | p[6];
    *w = p[7] << 8 | p[8];
    *d = p[9] * 8;
    if (p[1] == 0xC2) return;
  }
}

TEST_F(ImageFiles, JpegScanAgreesWithWholeFileBuffer) {
  std::mt19937 rng(20240521);
  for (int round = 0; round < 40; ++round) {
    const size_t size = 64 + rng() % (3 * kJpegScanChunk);
    Bytes file(size);
    for (uint8_t& b : file) b = uint8_t(rng() % 4 == 0 ? 0xFF : rng());
    file[0] = 0xFF;
    file[1] = 0xD8;
    file[2] = 0xFF;  // keep the dispatch on JPEG
    file[3] = 0;
    const int headers = int(rng() % 6);
    for (int k = 0; k < headers; ++k) {
      // Bias towards the window edges and the file's end.
      const size_t spots[] = {kJpegScanChunk + 10 - rng() % 12, size - 1 - rng() % 12,
                              10 + rng() % (size - 9)};
      const size_t at = spots[rng() % 3];
      const Bytes f = frame(rng() % 5 == 0 ? kProgressive : kBaseline, uint16_t(rng()),
                            uint16_t(rng()), uint8_t(rng()));
      for (size_t j = 0; j < f.size() && at + j < size; ++j) {
        if (at >= 10) file[at + j] = f[j];
      }
    }
    int32_t w = 0, h = 0, d = 0;
    scan_whole_buffer(file, &w, &h, &d);
    const Measured m = measure_bytes(file);
    EXPECT_EQ(m.info.width, w) << round;
    EXPECT_EQ(m.info.height, h) << round;
    EXPECT_EQ(m.info.depth, d) << round;
  }
}

// A hole of a sparse file reads as zeros. The scan steps over it and must give
// what the same file with its zeros written out gives: a header behind the
// hole, one cut short by the hole (its tail read as zeros), one at the end.
TEST_F(ImageFiles, JpegHoleReadsLikeWrittenZeros) {
  const off_t mib = off_t(1) << 20;
  const Bytes thumbnail = frame(kBaseline, 1, 2, 3), picture = frame(kBaseline, 700, 900, 3);
  const Bytes cut = {0xFF, kProgressive, 0x00, 0x11, 8, 0x01};
  const struct {
    const char* name;
    Pieces pieces;
    int32_t width;
  } cases[] = {
      {"behind_the_hole", {{0, kJpegHead + thumbnail}, {3 * mib + 5, picture}}, 900},
      {"cut_by_the_hole", {{0, kJpegHead}, {mib - 6, cut}, {3 * mib, picture}}, 0},
      {"at_the_end", {{0, kJpegHead + thumbnail}, {4 * mib - 10, picture}}, 900},
      {"hole_to_the_end", {{0, kJpegHead + thumbnail}}, 2},
  };
  const std::string path = dir_ + "/sparse.jpg";
  files_.push_back(path);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Measured m[2];
    for (const bool dense : {false, true}) {
      ASSERT_TRUE(write_pieces(path, 4 * mib, c.pieces, dense));
      m[dense] = measure(path);
    }
    EXPECT_EQ(m[0].info.width, c.width);
    EXPECT_EQ(m[0].result, m[1].result);
    EXPECT_EQ(m[0].out, m[1].out);
    EXPECT_EQ(m[0].info.width, m[1].info.width);
    EXPECT_EQ(m[0].info.height, m[1].info.height);
    EXPECT_EQ(m[0].info.depth, m[1].info.depth);
    EXPECT_EQ(m[0].info.file_size, m[1].info.file_size);
  }
}

// Its last baseline header counts, so a JPEG is searched to its end; 16 GiB of
// hole behind the first bytes are not read for that.
TEST_F(ImageFiles, JpegHoleToTheEndIsNotRead) {
  const std::string path = dir_ + "/huge.jpg";
  files_.push_back(path);
  ASSERT_TRUE(write_pieces(path, off_t(16) << 30, {{0, kJpegHead + frame(kBaseline, 1, 2, 3)}}, false));
  const long long before = bytes_read_so_far();
  ASSERT_GE(before, 0) << "no read count in /proc/self/io";
  const Measured m = measure(path);
  EXPECT_LT(bytes_read_so_far() - before, 1 << 20);
  EXPECT_EQ(m.info.width, 2);
  EXPECT_EQ(m.info.file_size, UINT32_MAX);
}

// ---------------------------------------------------------------------------
// TIFF: one IFD, width, length and bits per sample.

void put16(Bytes* b, size_t at, uint16_t v, bool be) {
  (*b)[at] = uint8_t(be ? v >> 8 : v);
  (*b)[at + 1] = uint8_t(be ? v : v >> 8);
}
void put32(Bytes* b, size_t at, uint32_t v, bool be) {
  for (int k = 0; k < 4; ++k) (*b)[at + k] = uint8_t(v >> (be ? 24 - 8 * k : 8 * k));
}

struct Entry {
  uint16_t tag, type;
  uint32_t count;
  Bytes value;  // the 4 value bytes as they stand in the file
};

// Header, IFD at 8, entries, then 16 spare bytes; extra is appended behind.
Bytes tiff(bool be, const std::vector<Entry>& entries, const Bytes& extra = {},
           int count_override = -1) {
  Bytes b(8 + 2 + 12 * entries.size());
  b[0] = b[1] = be ? 'M' : 'I';
  put16(&b, 2, 42, be);
  put32(&b, 4, 8, be);
  put16(&b, 8, uint16_t(count_override >= 0 ? count_override : int(entries.size())), be);
  size_t at = 10;
  for (const Entry& e : entries) {
    put16(&b, at, e.tag, be);
    put16(&b, at + 2, e.type, be);
    put32(&b, at + 4, e.count, be);
    std::copy(e.value.begin(), e.value.end(), b.begin() + at + 8);
    at += 12;
  }
  return b + extra;
}

struct TiffCase {
  const char* name;
  Bytes file;
  int32_t width, height, depth;
};

class TiffDirectory : public ImageFiles, public testing::WithParamInterface<TiffCase> {};

TEST_P(TiffDirectory, ReadsSizesAndDepth) {
  const TiffCase& c = GetParam();
  const Measured m = measure_bytes(c.file, "a.tif");
  EXPECT_EQ(m.result, 1);
  EXPECT_EQ(m.info.type, 3);
  EXPECT_EQ(m.info.width, c.width);
  EXPECT_EQ(m.info.height, c.height);
  EXPECT_EQ(m.info.depth, c.depth);
}

// Offsets of the three-value list: header 8 + count 2 + 3 entries of 12 = 46.
const TiffCase kTiff[] = {
    {"LittleEndianRgb",
     tiff(false, {{256, 4, 1, {0x40, 0x01, 0, 0}}, {257, 3, 1, {0xF0, 0, 0, 0}},
                  {258, 3, 3, {46, 0, 0, 0}}},
          {8, 0, 8, 0, 8, 0}),
     320, 240, 24},
    {"BigEndianRgb",
     tiff(true, {{256, 3, 1, {0x01, 0x40, 0, 0}}, {257, 4, 1, {0, 0, 0, 0xF0}},
                 {258, 3, 3, {0, 0, 0, 46}}},
          {0, 8, 0, 8, 0, 8}),
     320, 240, 24},
    {"BigEndianShortIsLeftJustified",
     tiff(true, {{256, 3, 1, {0x12, 0x34, 0x56, 0x78}}, {258, 1, 1, {8, 9, 9, 9}}}), 0x1234, 0,
     8},
    {"BigEndianRationalTakesValueField",
     tiff(true, {{256, 5, 1, {0, 1, 0, 2}}}), 0x10002, 0, 0},
    {"LittleEndianAlwaysTakes32Bits",
     tiff(false, {{256, 3, 1, {0x40, 0x01, 0x01, 0}}, {258, 3, 1, {8, 0, 0, 0}}}), 0x10140, 0, 8},
    {"ThreeByteValuesAdded",
     tiff(false, {{258, 1, 3, {30, 0, 0, 0}}}, zeros(8) + Bytes{5, 6, 7}), 0, 0, 18},
    {"ThreeLongValuesAddedBigEndian",
     tiff(true, {{258, 4, 3, {0, 0, 0, 22}}}, Bytes{0, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0}), 0, 0,
     0x10101},
    {"OneValueThenThreeAdds",
     tiff(false, {{258, 3, 1, {2, 0, 0, 0}}, {258, 3, 3, {34, 0, 0, 0}}}, {1, 0, 1, 0, 1, 0}), 0,
     0, 5},
    // Only the count's low byte is looked at.
    {"LittleEndianCountFirstByte",
     tiff(false, {{258, 3, 0x101, {8, 0, 0, 0}}}), 0, 0, 8},
    {"BigEndianCountLastByte",
     tiff(true, {{258, 3, 0x103, {0, 0, 0, 22}}}, {0, 4, 0, 4, 0, 4}), 0, 0, 12},
    {"OtherCountsLeaveDepth", tiff(false, {{258, 3, 4, {8, 0, 0, 0}}}), 0, 0, 0},
    {"UnknownTagsIgnored",
     tiff(false, {{259, 3, 1, {1, 0, 0, 0}}, {256, 3, 1, {7, 0, 0, 0}}}), 7, 0, 0},
    // The third of the three tags ends the directory.
    {"StopsAfterThreeFound",
     tiff(false, {{256, 3, 1, {7, 0, 0, 0}}, {256, 3, 1, {8, 0, 0, 0}},
                  {257, 3, 1, {9, 0, 0, 0}}, {256, 3, 1, {99, 0, 0, 0}}}),
     8, 9, 0},
    {"EntryCountLimits",
     tiff(false, {{256, 3, 1, {7, 0, 0, 0}}, {257, 3, 1, {9, 0, 0, 0}}}, {}, 1), 7, 0, 0},
    {"DirectoryBeyondEnd", Bytes{'I', 'I', 42, 0, 0xFF, 0xFF, 0xFF, 0xFF}, 0, 0, 0},
    {"ClaimedEntriesMissing",
     tiff(false, {{256, 3, 1, {7, 0, 0, 0}}}, {}, 0xFFFF), 7, 0, 0},
    {"ListBeyondEnd", tiff(false, {{258, 3, 3, {0xF0, 0xFF, 0, 0}}}), 0, 0, 0},
    {"UnknownTypeHasNoSize", tiff(true, {{258, 99, 3, {0, 0, 0, 8}}}, {1, 2, 3, 4}), 0, 0, 0},
    {"HeaderOnly", Bytes{'M', 'M', 0, 42}, 0, 0, 0},
};

INSTANTIATE_TEST_SUITE_P(Directories, TiffDirectory, testing::ValuesIn(kTiff),
                         [](const testing::TestParamInfo<TiffCase>& p) { return p.param.name; });

// ---------------------------------------------------------------------------
// PNG: the chunk walk to IHDR.

Bytes be32(uint32_t v) { return Bytes{uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }
const Bytes kPngSig = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
Bytes chunk(const char* type, const Bytes& data) {
  return be32(uint32_t(data.size())) + text(type) + data + zeros(4);
}
Bytes ihdr(uint32_t w, uint32_t h, uint8_t depth, uint8_t colour) {
  return chunk("IHDR", be32(w) + be32(h) + Bytes{depth, colour, 0, 0, 0});
}

struct PngCase {
  const char* name;
  Bytes file;
  int32_t width, height, depth;  // -1: left as it was
};

class PngChunks : public ImageFiles, public testing::WithParamInterface<PngCase> {};

TEST_P(PngChunks, WalksToHeader) {
  const PngCase& c = GetParam();
  const std::string path = write("a.png", c.file);
  ImageInfo info;
  memset(&info, 0, sizeof info);
  copy_bounded(info.path, path.c_str());
  info.width = info.height = info.depth = -1;  // to see what is written
  testing::internal::CaptureStdout();
  EXPECT_EQ(get_img_size(&info), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(info.type, 4);
  EXPECT_EQ(info.width, c.width);
  EXPECT_EQ(info.height, c.height);
  EXPECT_EQ(info.depth, c.depth);
}

const PngCase kPng[] = {
    {"Rgba16", kPngSig + ihdr(3000, 2000, 16, 6), 3000, 2000, 48},
    {"Rgba8", kPngSig + ihdr(1, 2, 8, 6), 1, 2, 32},
    {"Rgb16", kPngSig + ihdr(1, 2, 16, 2), 1, 2, 48},
    {"GreyAlpha16", kPngSig + ihdr(1, 2, 16, 4), 1, 2, 32},
    {"Grey1", kPngSig + ihdr(1, 2, 1, 0), 1, 2, 1},
    {"Palette2", kPngSig + ihdr(1, 2, 2, 3), 1, 2, 2},
    {"RgbOddDepthUnchanged", kPngSig + ihdr(1, 2, 4, 2), 1, 2, -1},
    {"UnknownColourUnchanged", kPngSig + ihdr(1, 2, 8, 5), 1, 2, -1},
    {"HeaderAfterOtherChunks",
     kPngSig + chunk("tEXt", text("Comment\0x")) + chunk("gAMA", be32(45455)) + ihdr(5, 6, 8, 0),
     5, 6, 8},
    {"NoHeaderBeforeEnd",
     kPngSig + chunk("IEND", {}) + ihdr(5, 6, 8, 0), -1, -1, -1},
    {"NoHeaderAtAll", kPngSig + chunk("tEXt", text("abc")), -1, -1, -1},
    {"SignatureOnly", kPngSig, -1, -1, -1},
    // A length that a signed reading would turn into a step backwards.
    {"HugeLengthEndsWalk",
     kPngSig + be32(0xFFFFFFFC) + text("tEXt") + ihdr(5, 6, 8, 0), -1, -1, -1},
    {"ZeroLengthChunksThenHeader",
     kPngSig + chunk("aaAa", {}) + chunk("bbBb", {}) + ihdr(7, 8, 16, 2), 7, 8, 48},
    // The header's fields stop early: the rest reads as zeros.
    {"TruncatedHeader", kPngSig + be32(13) + text("IHDR") + Bytes{0, 0, 1, 0, 0, 0}, 256, 0, 0},
};

INSTANTIATE_TEST_SUITE_P(Files, PngChunks, testing::ValuesIn(kPng),
                         [](const testing::TestParamInfo<PngCase>& p) { return p.param.name; });

TEST_F(ImageFiles, PngWalkOfManyEmptyChunksEnds) {
  // 70000 empty chunks and then the header: the walk gives up first.
  Bytes file = kPngSig;
  const Bytes empty = chunk("abCd", {});
  for (int i = 0; i < 70000; ++i) file.insert(file.end(), empty.begin(), empty.end());
  file = file + ihdr(5, 6, 8, 0);
  const Measured m = measure_bytes(file, "many.png");
  EXPECT_EQ(m.result, 1);
  EXPECT_EQ(m.info.width, 0);
}

}  // namespace
