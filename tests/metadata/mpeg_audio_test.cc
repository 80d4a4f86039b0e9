#include "metadata/mpeg_audio.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "../sparse_file.h"
#include "log/err_log.h"

namespace {

using Bytes = std::vector<uint8_t>;

// ---------------------------------------------------------------------------
// Frame header decode

struct HeaderCase {
  const char* name;
  uint8_t b[4];
  double version;
  int layer, bitrate, sample_rate, samples, length, stereo, xing_offset;
};

// Lengths worked out by hand from the header fields: layer I is
// (12000 * kbit/s / Hz + padding) * 4, layers II and III 144000 * kbit/s / Hz
// + padding, also for MPEG-2/2.5 layer III (twice the real frame there).
const HeaderCase kHeaders[] = {
    // MPEG-1
    {"mpeg1 layer1 384k 44.1k", {0xFF, 0xFF, 0xC0, 0x00}, 1.0, 1, 384, 44100, 384, 416, 1, 32},
    {"mpeg1 layer1 padded", {0xFF, 0xFF, 0xC2, 0x00}, 1.0, 1, 384, 44100, 384, 420, 1, 32},
    {"mpeg1 layer1 448k 32k", {0xFF, 0xFF, 0xE8, 0x00}, 1.0, 1, 448, 32000, 384, 672, 1, 32},
    {"mpeg1 layer2 192k 48k", {0xFF, 0xFD, 0xA4, 0x00}, 1.0, 2, 192, 48000, 1152, 576, 1, 32},
    {"mpeg1 layer2 384k 32k", {0xFF, 0xFD, 0xE8, 0x00}, 1.0, 2, 384, 32000, 1152, 1728, 1, 32},
    {"mpeg1 layer3 128k 44.1k", {0xFF, 0xFB, 0x90, 0x64}, 1.0, 3, 128, 44100, 1152, 417, 1, 32},
    {"mpeg1 layer3 padded", {0xFF, 0xFB, 0x92, 0x64}, 1.0, 3, 128, 44100, 1152, 418, 1, 32},
    {"mpeg1 layer3 320k 32k", {0xFF, 0xFB, 0xE8, 0x00}, 1.0, 3, 320, 32000, 1152, 1440, 1, 32},
    {"mpeg1 layer3 32k 48k crc", {0xFF, 0xFA, 0x14, 0x00}, 1.0, 3, 32, 48000, 1152, 96, 1, 32},
    // MPEG-2
    {"mpeg2 layer1 256k 22.05k", {0xFF, 0xF7, 0xE0, 0x00}, 2.0, 1, 256, 22050, 384, 556, 1, 17},
    {"mpeg2 layer1 padded", {0xFF, 0xF7, 0xE2, 0x00}, 2.0, 1, 256, 22050, 384, 560, 1, 17},
    {"mpeg2 layer2 64k 24k", {0xFF, 0xF5, 0x84, 0x00}, 2.0, 2, 64, 24000, 1152, 384, 1, 17},
    {"mpeg2 layer3 32k 16k", {0xFF, 0xF3, 0x48, 0x64}, 2.0, 3, 32, 16000, 576, 288, 1, 17},
    {"mpeg2 layer3 64k 22.05k", {0xFF, 0xF3, 0x80, 0x64}, 2.0, 3, 64, 22050, 576, 417, 1, 17},
    // MPEG-2.5
    {"mpeg2.5 layer1 256k 8k", {0xFF, 0xE7, 0xE8, 0x00}, 2.5, 1, 256, 8000, 384, 1536, 1, 17},
    {"mpeg2.5 layer2 8k 12k", {0xFF, 0xE5, 0x14, 0x00}, 2.5, 2, 8, 12000, 1152, 96, 1, 17},
    {"mpeg2.5 layer3 16k 8k", {0xFF, 0xE3, 0x28, 0x64}, 2.5, 3, 16, 8000, 576, 288, 1, 17},
    {"mpeg2.5 layer3 160k 11.025k", {0xFF, 0xE3, 0xE0, 0x00}, 2.5, 3, 160, 11025, 576, 2089, 1, 17},
    {"mpeg2.5 longest accepted", {0xFF, 0xE3, 0xE8, 0x00}, 2.5, 3, 160, 8000, 576, 2880, 1, 17},
    // The stereo word follows the two low bits of the fourth byte: 3 there
    // gives 0 and the short Xing offsets, whatever the channel mode bits say.
    {"mpeg1 low bits 3", {0xFF, 0xFB, 0x90, 0x03}, 1.0, 3, 128, 44100, 1152, 417, 0, 17},
    {"mpeg1 mono mode", {0xFF, 0xFB, 0x90, 0xC4}, 1.0, 3, 128, 44100, 1152, 417, 1, 32},
    {"mpeg2 low bits 3", {0xFF, 0xF3, 0x48, 0xC7}, 2.0, 3, 32, 16000, 576, 288, 0, 9},
};

TEST(Mp3FrameHeader, DecodesVersionsLayersAndLengths) {
  for (const HeaderCase& c : kHeaders) {
    SCOPED_TRACE(c.name);
    Mp3Frame f;
    memset(&f, 0xA5, sizeof f);
    ASSERT_EQ(mp3_decode_frame_header(c.b, &f), 0);
    EXPECT_EQ(f.is_valid, 1);
    EXPECT_EQ(f.version, c.version);
    EXPECT_EQ(f.layer, c.layer);
    EXPECT_EQ(f.bitrate, c.bitrate);
    EXPECT_EQ(f.sample_rate, c.sample_rate);
    EXPECT_EQ(f.samples_per_frame, c.samples);
    EXPECT_EQ(f.frame_length, c.length);
    EXPECT_EQ(f.padding, (c.b[2] & 0x02) ? 1 : 0);
    EXPECT_EQ(f.stereo, c.stereo);
    EXPECT_EQ(f.xing_offset, c.xing_offset);
    EXPECT_EQ(f.crc_byte, c.b[1] & 0xFE);
  }
}

TEST(Mp3FrameHeader, RejectsUnusableHeaders) {
  const struct {
    const char* name;
    uint8_t b[4];
  } kBad[] = {
      {"no sync byte", {0xFE, 0xFB, 0x90, 0x64}},
      {"sync bits short", {0xFF, 0xDB, 0x90, 0x64}},
      {"all zero", {0x00, 0x00, 0x00, 0x00}},
      {"bitrate index 0 (free format)", {0xFF, 0xFB, 0x00, 0x64}},
      {"bitrate index 15", {0xFF, 0xFB, 0xF0, 0x64}},
      {"sample rate index 3", {0xFF, 0xFB, 0x9C, 0x64}},
      {"version bits 01", {0xFF, 0xEB, 0x90, 0x64}},
      {"version bits 01 layer 1", {0xFF, 0xEF, 0x90, 0x64}},
      {"reserved layer mpeg1", {0xFF, 0xF9, 0x90, 0x64}},
      {"reserved layer mpeg2", {0xFF, 0xF1, 0x90, 0x64}},
      {"reserved layer mpeg2.5", {0xFF, 0xE1, 0x90, 0x64}},
      {"frame of 2881 bytes", {0xFF, 0xE3, 0xEA, 0x00}},
      {"mpeg2.5 layer2 2881 bytes", {0xFF, 0xE5, 0xEA, 0x00}},
  };
  for (const auto& c : kBad) {
    SCOPED_TRACE(c.name);
    Mp3Frame f{};
    f.is_valid = 1;
    EXPECT_EQ(mp3_decode_frame_header(c.b, &f), -1);
    EXPECT_EQ(f.is_valid, 0);
  }
}

// ---------------------------------------------------------------------------
// Byte-built streams

// MPEG-1 layer III, 44.1 kHz, joint stereo, no padding, body zero-filled, so
// that the only 0xFF bytes in a stream are the ones a test puts there.
struct L3Rate {
  uint8_t index;
  int kbps;
  size_t bytes;
};
constexpr L3Rate k32{1, 32, 104}, k40{2, 40, 130}, k48{3, 48, 156}, k56{4, 56, 182},
    k64{5, 64, 208}, k80{6, 80, 261}, k96{7, 96, 313}, k112{8, 112, 365}, k128{9, 128, 417},
    k160{10, 160, 522}, k320{14, 320, 1044};

void add_frame(Bytes* s, const L3Rate& r) {
  const size_t at = s->size();
  s->resize(at + r.bytes, 0);
  (*s)[at] = 0xFF;
  (*s)[at + 1] = 0xFB;
  (*s)[at + 2] = uint8_t(r.index << 4);
  (*s)[at + 3] = 0x64;
}
void add_frames(Bytes* s, const L3Rate& r, int n) {
  for (int i = 0; i < n; ++i) add_frame(s, r);
}
void add_zeros(Bytes* s, size_t n) { s->resize(s->size() + n, 0); }
void put(Bytes* s, size_t at, const char* text, size_t n) { memcpy(s->data() + at, text, n); }

// An ID3v2 header declaring `size` bytes of tag behind it, zero body.
Bytes id3_tag(uint32_t size) {
  Bytes s = {'I', 'D', '3', 3, 0, 0, uint8_t(size >> 21 & 0x7F), uint8_t(size >> 14 & 0x7F),
             uint8_t(size >> 7 & 0x7F), uint8_t(size & 0x7F)};
  add_zeros(&s, size);
  return s;
}

// A valid pair of 48 kHz frames (384 bytes apart) placed at `at`: a full
// search that starts at byte 0 finds it, a tag skip never looks there.
void plant_48k_pair(Bytes* s, size_t at) {
  const uint8_t h[4] = {0xFF, 0xFB, 0x94, 0x64};
  memcpy(s->data() + at, h, 4);
  memcpy(s->data() + at + 384, h, 4);
}

class Mp3File : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/mw_mp3_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    path_ = dir_ + "/song.mp3";
    reset_record();
  }
  void TearDown() override {
    unlink(path_.c_str());
    rmdir(dir_.c_str());
  }
  // Sentinels that no reader result can produce, so "untouched" is visible.
  void reset_record() {
    memset(&info_, 0, sizeof info_);
    info_.bitrate = -7;
    info_.sample_rate = -8;
    info_.song_length = 0;
    info_.file_size = 0xDEADBEEF;
  }
  void write(const Bytes& bytes) {
    FILE* f = fopen(path_.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
    fclose(f);
  }
  // Runs the reader with every debug line on; keeps what went to stdout and
  // what went through the log.
  int scan(const char* path = nullptr) {
    err_log_set_level(9);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int rc = scan_get_mp3fileinfo(path ? path : path_.c_str(), &info_);
    out_ = testing::internal::GetCapturedStdout();
    log_ = testing::internal::GetCapturedStderr();
    err_log_set_level(0);
    return rc;
  }
  bool logged(const std::string& line) const { return log_.find(line) != std::string::npos; }
  void expect_audio_untouched() const {
    EXPECT_EQ(info_.bitrate, -7);
    EXPECT_EQ(info_.sample_rate, -8);
    EXPECT_EQ(info_.song_length, 0);
  }

  std::string dir_, path_, out_, log_;
  MusicFileInfo info_;
};

TEST_F(Mp3File, UnopenableFileFails) {
  const std::string missing = dir_ + "/absent.mp3";
  EXPECT_EQ(scan(missing.c_str()), -1);
  EXPECT_EQ(out_, "Could not open " + missing + " for reading\n");
  EXPECT_TRUE(logged("Could not open " + missing + " for reading\n"));
  EXPECT_EQ(info_.file_size, 0xDEADBEEFu);
  expect_audio_untouched();
}

TEST_F(Mp3File, FileShorterThanOneBlockFails) {
  for (size_t size : {size_t(0), size_t(4), size_t(1023)}) {
    SCOPED_TRACE(size);
    reset_record();
    Bytes s;
    add_frames(&s, k128, 3);
    s.resize(size);
    write(s);
    EXPECT_EQ(scan(), -1);
    EXPECT_EQ(out_, "Short file: " + path_ + "\n");
    EXPECT_TRUE(logged("Short file: " + path_ + "\n"));
    EXPECT_EQ(info_.file_size, size);  // stored before the first read
    expect_audio_untouched();
  }
}

// Streams of five 128 kbit/s frames (2085 bytes) behind `start` bytes of
// zeros: the song length counts only the bytes from the first frame on,
// 2085 * 8 / 128 = 130.3 ms. The files are too short for the averaging
// window, so the first frame's bitrate stays.
TEST_F(Mp3File, FindsFirstFrameAcrossBlocks) {
  for (size_t start : {0, 1, 973, 974, 975, 1023, 1024, 2500, 3000}) {
    SCOPED_TRACE(start);
    reset_record();
    Bytes s(start, 0);
    add_frames(&s, k128, 5);
    write(s);
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(out_, "");
    EXPECT_EQ(info_.bitrate, 128);
    EXPECT_EQ(info_.sample_rate, 44100);
    EXPECT_EQ(info_.song_length, 130);
    EXPECT_EQ(info_.file_size, start + 2085);
    EXPECT_EQ(logged("Block exhausted\n"), start > 974);
  }
}

TEST_F(Mp3File, SkipsSyncWhoseNextHeaderIsMissing) {
  Bytes s(600, 0);
  // A 64 kbit/s 48 kHz header with nothing 192 bytes behind it.
  const uint8_t lone[4] = {0xFF, 0xFB, 0x54, 0x64};
  memcpy(s.data() + 10, lone, 4);
  add_frames(&s, k128, 5);
  write(s);
  EXPECT_EQ(scan(), 0);
  EXPECT_TRUE(logged("valid header at 10\nFound valid frame at 000a\nChecking at 00ca\n"
                     "Didn't pan out.\n"));
  EXPECT_TRUE(logged("Found valid frame at 0258\nChecking at 03f9\n"));
  EXPECT_EQ(info_.sample_rate, 44100);
  EXPECT_EQ(info_.bitrate, 128);
  EXPECT_EQ(info_.song_length, 130);
}

TEST_F(Mp3File, NoFrameAnywhereLeavesAudioFields) {
  write(Bytes(3000, 0));
  EXPECT_EQ(scan(), 0);
  EXPECT_EQ(out_, "Short read: " + path_ + "\n");
  EXPECT_TRUE(logged("Reading in new block at 1950\n"));
  EXPECT_EQ(info_.file_size, 3000u);
  expect_audio_untouched();
}

TEST_F(Mp3File, UnreadableCheckHeaderLeavesAudioFields) {
  Bytes s(1100, 0);
  const uint8_t h[4] = {0xFF, 0xFB, 0x90, 0x64};
  memcpy(s.data() + 900, h, 4);  // its successor would be at 1317
  write(s);
  EXPECT_EQ(scan(), 0);
  EXPECT_EQ(out_, "Could not read frame header: " + path_ + "\n");
  expect_audio_untouched();
  EXPECT_EQ(info_.file_size, 1100u);
}

// ID3v2 tag of 500 bytes (ends at 510) with a 48 kHz frame pair planted in
// its body at byte 30; the real 44.1 kHz stream follows somewhere behind it.
// Sample rate 48000 shows that the search started again at byte 0.
TEST_F(Mp3File, TagSkipOrFullSearchFromByteZero) {
  const struct {
    const char* name;
    size_t gap;          // zero bytes between the tag's end and the stream
    bool lone_at_end;    // a single frame right at the tag's end
    int sample_rate;     // 44100: tag skipped, 48000: searched from byte 0
    int song_length;     // from the accepted frame to the end
  } kCases[] = {
      // (2595 - 510) * 8 / 128
      {"frame right behind tag", 0, false, 44100, 130},
      // (2695 - 30) * 8 / 128 = 166.6
      {"padding behind tag", 100, false, 48000, 166},
      {"one byte of padding", 1, false, 48000, 160},
      // a frame at the tag's end whose next header is not there
      {"lone frame behind tag", 1500, true, 48000, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    reset_record();
    Bytes s = id3_tag(500);
    plant_48k_pair(&s, 30);
    if (c.lone_at_end) add_frame(&s, k128);
    add_zeros(&s, c.gap);
    add_frames(&s, k128, 5);
    write(s);
    EXPECT_EQ(scan(), 0);
    EXPECT_TRUE(logged("Found ID3 header\nHeader length: 500\nReading in new block at 510\n"));
    const bool fell_back = c.sample_rate == 48000;
    EXPECT_EQ(logged("Bad header... dropping back for full frame search\n"
                     "Reading in new block at 0\n"),
              fell_back);
    EXPECT_EQ(info_.sample_rate, c.sample_rate);
    EXPECT_EQ(info_.bitrate, 128);
    const int expected_length =
        c.song_length ? c.song_length : int((s.size() - 30) * 8.0 / 128);
    EXPECT_EQ(info_.song_length, expected_length);
  }
}

TEST_F(Mp3File, TagSizeUsesSevenBitsPerByte) {
  Bytes s = id3_tag(500);
  s[6] |= 0x80;
  s[7] |= 0x80;
  s[8] |= 0x80;
  s[9] |= 0x80;
  add_frames(&s, k128, 5);
  write(s);
  EXPECT_EQ(scan(), 0);
  EXPECT_TRUE(logged("Header length: 500\n"));
  EXPECT_EQ(info_.song_length, 130);
}

TEST_F(Mp3File, TagReachingPastTheEndLeavesAudioFields) {
  Bytes s = id3_tag(600);
  s[8] = 0x7F;  // now declares 16,344 bytes, more than the file holds
  add_frames(&s, k128, 5);
  write(s);
  EXPECT_EQ(scan(), 0);
  EXPECT_EQ(out_, "Short read: " + path_ + "\n");
  expect_audio_untouched();
}

// A first frame carrying a Xing header is taken without its successor.
// The flags and frame count are read from the first two of their four bytes.
TEST_F(Mp3File, XingHeader) {
  const struct {
    const char* name;
    const char* tag;
    const char* flags;
    const char* count;
    int32_t preset_length;
    int32_t song_length;
  } kCases[] = {
      // 1500 * 8 / 128 = 93.75: a real Xing header (flags in the low bytes)
      {"flags as written by encoders", "Xing", "\0\0\0\x0F", "\0\0\0\x64", 0, 93},
      {"lower case", "xing", "\0\0\0\x0F", "\0\0\0\x64", 0, 93},
      {"upper case", "XING", "\0\0\0\x0F", "\0\0\0\x64", 0, 93},
      // count 0x0064 = 100 frames * 1152 * 1000 / 44100 = 2612.2
      {"flag in the high bytes", "Xing", "\0\x01\0\0", "\0\x64\0\0", 0, 2612},
      {"even flag word", "Xing", "\0\x02\0\0", "\0\x64\0\0", 0, 93},
      {"length already known", "Xing", "\0\x01\0\0", "\0\x64\0\0", 4321, 4321},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    reset_record();
    info_.song_length = c.preset_length;
    Bytes s;
    add_frame(&s, k128);
    add_zeros(&s, 1500 - s.size());  // no second frame anywhere
    put(&s, 36, c.tag, 4);
    put(&s, 40, c.flags, 4);
    put(&s, 44, c.count, 4);
    write(s);
    EXPECT_EQ(scan(), 0);
    EXPECT_TRUE(logged("valid header at 0\n MPEG Version: 1\n Layer: 3\n Sample Rate: 44100\n"
                       " Bit Rate: 128\nFound Xing header\n"));
    EXPECT_EQ(info_.bitrate, 128);
    EXPECT_EQ(info_.song_length, c.song_length);
  }
}

TEST_F(Mp3File, XingSoughtAtTheShortOffsetWhenStereoWordIsZero) {
  Bytes s;
  add_frame(&s, k128);
  s[3] = 0x03;
  add_zeros(&s, 1500 - s.size());
  put(&s, 4 + 17, "Xing", 4);
  write(s);
  EXPECT_EQ(scan(), 0);
  EXPECT_TRUE(logged("Found Xing header\nXing Flags: 00\n"));
  EXPECT_EQ(info_.sample_rate, 44100);
}

// Middle section builder: `before` 128 kbit/s frames, then zeros, then the
// `middle` bytes, sized so that half the file size falls 10 bytes before
// the middle section. The averaging pass starts its search there.
Bytes middle_stream(int before, const Bytes& middle) {
  Bytes s;
  add_frames(&s, k128, before);
  const size_t head = s.size();
  const size_t gap = middle.size() + 20 - head;  // (head + gap + middle) / 2 = head + gap - 10
  add_zeros(&s, gap);
  s.insert(s.end(), middle.begin(), middle.end());
  return s;
}

Bytes ten_rates() {  // 32+40+48+56+64+80+96+112+160+320 = 1008 kbit/s
  Bytes m;
  for (const L3Rate& r : {k32, k40, k48, k56, k64, k80, k96, k112, k160, k320}) add_frame(&m, r);
  return m;
}

TEST_F(Mp3File, AveragesTenFramesFromTheMiddle) {
  const struct {
    const char* name;
    Bytes middle;
    int bitrate;
    const char* line;
  } kCases[] = {
      {"ten rates", ten_rates(), 100, "Old bitrate: 128\nNew bitrate: 100\n"},
      {"false sync before them",
       [] {
         Bytes m(50, 0);
         m[0] = 0xFF, m[1] = 0xFB, m[2] = 0x90, m[3] = 0x64;
         const Bytes t = ten_rates();
         m.insert(m.end(), t.begin(), t.end());
         return m;
       }(),
       100, "Old bitrate: 128\nNew bitrate: 100\n"},
      {"invalid sixth header",
       [] {
         Bytes m = ten_rates();
         m[104 + 130 + 156 + 182 + 208 + 2] = 0xF0;  // bitrate index 15
         return m;
       }(),
       128, "Invalid frame header while averaging\n"},
      {"three frames, then the end of the file",
       [] {
         Bytes m;
         add_frames(&m, k320, 3);
         return m;
       }(),
       128, "Could not read frame header\n"},
      {"no frame in the middle", Bytes(3000, 0), 128, "Could not find frame... quitting\n"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    reset_record();
    const Bytes s = middle_stream(2, c.middle);
    write(s);
    EXPECT_EQ(scan(), 0);
    EXPECT_TRUE(logged(std::string("Starting averaging bitrate\n") + c.line)) << log_;
    EXPECT_EQ(info_.bitrate, c.bitrate);
    EXPECT_EQ(info_.sample_rate, 44100);
    EXPECT_EQ(info_.song_length, int(s.size() * 8.0 / c.bitrate));
    EXPECT_EQ(info_.file_size, s.size());
  }
}

TEST_F(Mp3File, VbrWithXingTakesLengthFromFileSize) {
  Bytes s;
  add_frame(&s, k128);
  put(&s, 36, "Xing", 4);
  put(&s, 40, "\0\0\0\x0F", 4);
  put(&s, 44, "\0\0\x01\x00", 4);  // 256 frames, never read
  Bytes rest = middle_stream(2, ten_rates());
  s.insert(s.end(), rest.begin(), rest.end());
  write(s);
  EXPECT_EQ(scan(), 0);
  EXPECT_TRUE(logged("Found Xing header\nXing Flags: 00\n"));
  EXPECT_EQ(info_.bitrate, 100);
  EXPECT_EQ(info_.song_length, int(s.size() * 8.0 / 100));
}

// Random bytes rich in 0xFF and sync-like pairs, and cut or damaged copies of
// a real stream: every run must end with 0 or -1 (the sanitizer build checks
// that no buffer is read out of bounds on the way).
TEST_F(Mp3File, SurvivesDamagedInput) {
  uint32_t seed = 2463534242u;
  auto next = [&seed] {
    seed ^= seed << 13;
    seed ^= seed >> 17;
    seed ^= seed << 5;
    return seed;
  };
  Bytes clean = id3_tag(300);
  add_frames(&clean, k128, 4);
  const Bytes middle = ten_rates();
  clean.insert(clean.end(), middle.begin(), middle.end());
  add_frames(&clean, k128, 12);

  for (int round = 0; round < 120; ++round) {
    SCOPED_TRACE(round);
    Bytes s;
    if (round % 3 == 0) {
      s.resize(1024 + next() % 9000);
      for (uint8_t& b : s) {
        const uint32_t r = next();
        b = (r & 3) == 0 ? 0xFF : (r & 3) == 1 ? uint8_t(0xE0 | (r >> 8 & 0x1F)) : uint8_t(r >> 16);
      }
      if (round % 2) {
        const uint32_t tag = next() % 600;
        const uint8_t head[10] = {'I', 'D', '3', 3, 0, 0, 0, 0, uint8_t(tag >> 7), uint8_t(tag & 0x7F)};
        memcpy(s.data(), head, sizeof head);
      }
    } else {
      s = clean;
      if (round % 3 == 1) s.resize(1024 + next() % (clean.size() - 1023));
      for (int i = 0; i < 6; ++i) s[next() % s.size()] = uint8_t(next());
      if (round % 4 == 0) s[310 + next() % 4] = uint8_t(next());  // the frame behind the tag
    }
    write(s);
    reset_record();
    const int rc = scan();
    EXPECT_TRUE(rc == 0 || rc == -1);
    EXPECT_EQ(info_.file_size, s.size());
  }
}

// ---------------------------------------------------------------------------
// Files made by a real encoder (tests/data/make_audio_mp3.sh)

std::string fixture(const char* name) {
  return std::string(MEDIAWALK_TEST_DATA) + "/audio/" + name;
}

long file_size_of(const std::string& path) {
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) return -1;
  fseek(f, 0, SEEK_END);
  const long n = ftell(f);
  fclose(f);
  return n;
}

// Bitrate and sample rate are the encoder settings. The song length comes
// from the file size over the bitrate, so it covers the encoder's delay and
// padding frames: between the source duration and 200 ms more.
//
// The MPEG-2/2.5 layer III files are stepped two real frames at a time (the
// 144000 factor). At 16 and 8 kHz the real frames have no padding (72000 *
// kbit/s / Hz is whole: 144 or 108 bytes) and every doubled step lands on a
// header, so averaging reads every other frame and yields the CBR rate. At
// 22.05 kHz the real frames are 208 bytes plus padding; a doubled step from a
// frame lands on a header only when the frame after it is padded. Frames 0
// and 1 of that file are unpadded, so the check of frame 0 fails and the
// first frame found is frame 1 at byte 208; from the middle all ten steps
// land and the mean is again 64.
TEST_F(Mp3File, EncodedFiles) {
  const struct {
    const char* file;
    int bitrate;
    int sample_rate;
    int seconds;
  } kFiles[] = {
      {"cbr32_44k.mp3", 32, 44100, 2},      {"cbr128_44k.mp3", 128, 44100, 2},
      {"cbr320_44k.mp3", 320, 44100, 1},    {"mono64_44k.mp3", 64, 44100, 2},
      {"tagged_cbr128.mp3", 128, 44100, 2}, {"tagged_padded_cbr128.mp3", 128, 44100, 2},
      {"mpeg2_22k_64.mp3", 64, 22050, 2},   {"mpeg2_16k_32.mp3", 32, 16000, 4},
      {"mpeg2_16k_mono24.mp3", 24, 16000, 4}, {"mpeg25_8k_16.mp3", 16, 8000, 4},
  };
  for (const auto& c : kFiles) {
    SCOPED_TRACE(c.file);
    reset_record();
    const std::string path = fixture(c.file);
    ASSERT_EQ(scan(path.c_str()), 0);
    EXPECT_EQ(out_, "");
    EXPECT_TRUE(logged("New bitrate: " + std::to_string(c.bitrate) + "\n")) << log_;
    EXPECT_EQ(info_.bitrate, c.bitrate);
    EXPECT_EQ(info_.sample_rate, c.sample_rate);
    EXPECT_GE(info_.song_length, c.seconds * 1000);
    EXPECT_LE(info_.song_length, c.seconds * 1000 + 200);
    EXPECT_EQ(long(info_.file_size), file_size_of(path));
  }
}

TEST_F(Mp3File, EncodedMpeg2FirstFrameNeedsPaddedSuccessor) {
  const std::string path = fixture("mpeg2_22k_64.mp3");
  ASSERT_EQ(scan(path.c_str()), 0);
  EXPECT_TRUE(logged("Found valid frame at 0000\nChecking at 01a1\nDidn't pan out.\n"));
  EXPECT_TRUE(logged("Found valid frame at 00d0\nChecking at 0271\n"));
  EXPECT_EQ(info_.song_length, int((file_size_of(path) - 208) * 8.0 / 64));
}

// A tag, with or without padding behind it, leaves the audio start at the
// first frame: same length as the untagged file.
TEST_F(Mp3File, EncodedTagDoesNotCountAsAudio) {
  ASSERT_EQ(scan(fixture("cbr128_44k.mp3").c_str()), 0);
  const int32_t plain = info_.song_length;
  for (const char* name : {"tagged_cbr128.mp3", "tagged_padded_cbr128.mp3"}) {
    SCOPED_TRACE(name);
    reset_record();
    ASSERT_EQ(scan(fixture(name).c_str()), 0);
    EXPECT_EQ(info_.song_length, plain);
  }
  EXPECT_TRUE(logged("Bad header... dropping back for full frame search\n"));
}

// The VBR file opens with a Xing frame at 128 kbit/s. Its frames 41 to 50,
// the first ten behind the middle of the file, are 192, 160, 320, 192, 192,
// 160, 160, 192, 160 and 192 kbit/s: 1920 / 10 = 192.
TEST_F(Mp3File, EncodedVbrAveragesTheMiddle) {
  const std::string path = fixture("vbr_44k.mp3");
  ASSERT_EQ(scan(path.c_str()), 0);
  EXPECT_TRUE(logged("Found Xing header\nXing Flags: 00\n"));
  EXPECT_TRUE(logged("Old bitrate: 128\nNew bitrate: 192\n"));
  EXPECT_EQ(info_.bitrate, 192);
  EXPECT_EQ(info_.sample_rate, 44100);
  EXPECT_EQ(info_.song_length, int(file_size_of(path) * 8.0 / 192));
}

// A hole of a sparse file reads as zeros. The reader steps over it, so the
// result must be the one the same file with its zeros written out gives,
// wherever behind the hole the first frame begins (the search steps 975
// bytes a block); only the debug lines would show the skipped blocks, and
// with them on nothing is skipped.
TEST_F(Mp3File, HoleReadsLikeWrittenZeros) {
  Bytes frames;
  add_frames(&frames, k128, 5);
  const off_t mib = off_t(1) << 20;
  for (const off_t start : {mib, mib + 974, mib + 975, 3 * mib + 1023, 3 * mib + 4096 + 1}) {
    SCOPED_TRACE(start);
    std::string out[2];
    MusicFileInfo got[2];
    for (const bool dense : {false, true}) {
      ASSERT_TRUE(write_pieces(path_, start + off_t(frames.size()), {{start, frames}}, dense));
      reset_record();
      testing::internal::CaptureStdout();
      EXPECT_EQ(scan_get_mp3fileinfo(path_.c_str(), &info_), 0);
      out[dense] = testing::internal::GetCapturedStdout();
      got[dense] = info_;
    }
    EXPECT_EQ(got[0].bitrate, 128);
    EXPECT_EQ(out[0], out[1]);
    EXPECT_EQ(got[0].bitrate, got[1].bitrate);
    EXPECT_EQ(got[0].sample_rate, got[1].sample_rate);
    EXPECT_EQ(got[0].song_length, got[1].song_length);
    EXPECT_EQ(got[0].file_size, got[1].file_size);
  }
}

// 16 GiB of hole costs its writer nothing; reading it would take minutes on
// the appliance. The search reaches the end without reading it.
TEST_F(Mp3File, HoleToTheEndIsNotRead) {
  const off_t size = off_t(16) << 30;
  ASSERT_TRUE(write_pieces(path_, size, {}, false));
  const long long before = bytes_read_so_far();
  ASSERT_GE(before, 0) << "no read count in /proc/self/io";
  testing::internal::CaptureStdout();
  EXPECT_EQ(scan_get_mp3fileinfo(path_.c_str(), &info_), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Short read: " + path_ + "\n");
  EXPECT_LT(bytes_read_so_far() - before, 1 << 20);
  expect_audio_untouched();
}

}  // namespace
