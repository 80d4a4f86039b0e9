// MPEG audio frame analysis: header decoding, and what a whole file gives (tables in
// tests/data/cases/mpeg_*.tsv; the encoded files come from tests/data/make_audio_mp3.sh).
#include "metadata/mpeg_audio.h"

#include <string.h>

#include "reader_case.h"

namespace {

// Four header bytes -> "version layer kbit/s Hz samples length padding stereo xing crc", or -1.
TABLE_TEST(Mp3FrameHeader, "mpeg_headers.tsv") {
  Mp3Frame f;
  memset(&f, 0xA5, sizeof f);
  const int rc = mp3_decode_frame_header(reinterpret_cast<const uint8_t*>(c.at(0).data()), &f);
  char got[128] = "-1";
  if (rc == 0)
    snprintf(got, sizeof got, "%g %d %d %d %d %d %d %d %d %d", f.version, f.layer, f.bitrate,
             f.sample_rate, f.samples_per_frame, f.frame_length, f.padding, f.stereo,
             f.xing_offset, f.crc_byte);
  EXPECT_EQ(got, c.at(1));
  EXPECT_EQ(f.is_valid, rc == 0);
}

// A file -> "result kbit/s Hz ms size|stdout"; -7 -8 0 9 are the values the reader leaves alone.
TABLE_TEST(Mp3File, "mpeg_files.tsv") {
  check_reader(c, 1, "song.mp3", c.at(0), [](const std::string& path) {
    MusicFileInfo info{};
    info.bitrate = -7;
    info.sample_rate = -8;
    info.file_size = 9;
    int rc = 0;
    const std::string out = stdout_of([&] { rc = scan_get_mp3fileinfo(path.c_str(), &info); });
    return std::to_string(rc) + " " + std::to_string(info.bitrate) + " " +
           std::to_string(info.sample_rate) + " " + std::to_string(info.song_length) + " " +
           std::to_string(info.file_size) + "|" + out;
  });
}

}  // namespace
