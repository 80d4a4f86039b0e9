#include "metadata/mpeg_audio.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "log/err_log.h"
#include "metadata/bytes.h"
#include "metadata/read_range.h"
#include "platform/holders.h"
#include "platform/regular_file.h"

static_assert(sizeof(off_t) == 8, "MP3 files above 2 GiB need 64-bit offsets");

namespace {

// kbit/s by bitrate index; index 0 (free format) and 15 are never accepted.
// Rows: MPEG-1 layers I, II, III; MPEG-2/2.5 layer I; MPEG-2/2.5 layers II, III.
constexpr int32_t kBitrates[5][16] = {
    {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0},
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0},
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0},
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},
};

// Hz by sample-rate index; rows MPEG-1, MPEG-2, MPEG-2.5. Index 3 is reserved.
constexpr int32_t kSampleRates[3][3] = {
    {44100, 48000, 32000},
    {22050, 24000, 16000},
    {11025, 12000, 8000},
};

constexpr int32_t kMaxFrameLength = 2880;

// The first-frame search reads 1024-byte blocks and looks for a sync byte only
// up to index 974, so that the header, the largest Xing offset (32), "XING",
// its flags and its frame count (4 + 32 + 4 + 4 + 4 bytes) all lie in the block.
constexpr size_t kBlockSize = 1024;
constexpr size_t kLastSyncIndex = 974;

// The averaging pass reads one 2900-byte window from the middle of the file
// and needs four header bytes behind a sync byte.
constexpr size_t kMiddleSize = 2900;
constexpr size_t kMiddleSyncEnd = 2896;
constexpr int kAveragedFrames = 10;

// The fixed second line after a lost sync frame.
const char kReportLine[] =
    "If this file plays in other applications, please report it so that the scanner can be "
    "fixed.\n";

// "XING" in any letter case. ASCII only: no locale is involved.
bool is_xing(const uint8_t* p) {
  static const char kTag[] = "XING";
  for (int i = 0; i < 4; ++i) {
    uint8_t c = p[i];
    if (c >= 'a' && c <= 'z') c = uint8_t(c - 'a' + 'A');
    if (c != uint8_t(kTag[i])) return false;
  }
  return true;
}

// The four bytes at pos, taken from the block already read from block_pos
// when they lie inside it, else read from the file.
bool four_bytes_at(FileBytes* file, off_t pos, const uint8_t* block, off_t block_pos, size_t block_len, uint8_t* out) {
  if (pos >= block_pos && pos - block_pos <= static_cast<off_t>(block_len) - 4) {
    memcpy(out, block + (pos - block_pos), 4);
    return true;
  }
  return read_range(file, pos, out, 4) == 4;
}

// A block of zeros holds no sync byte, so the search only moves on from it,
// by kLastSyncIndex + 1 bytes. Blocks lying wholly in a hole of a sparse file
// are stepped over that way without reading them: the search ends where it
// would have, but a file of terabytes of holes no longer takes hours. Only
// the level-9 lines of those blocks would tell the difference, so the caller
// skips nothing while they are written.
off_t past_zero_blocks(int fd, off_t offset, int64_t file_size) {
  const off_t data = next_data(fd, offset, static_cast<off_t>(file_size));
  constexpr off_t kStep = kLastSyncIndex + 1;
  if (data - offset < static_cast<off_t>(kBlockSize)) return offset;
  return offset + ((data - offset - static_cast<off_t>(kBlockSize)) / kStep + 1) * kStep;
}

// Whole milliseconds, truncated toward zero; a value the record cannot hold is
// clamped rather than converted (which would be undefined).
int32_t to_milliseconds(double ms) {
  if (!(ms > -2147483648.0)) return INT32_MIN;
  if (ms >= 2147483647.0) return INT32_MAX;
  return static_cast<int32_t>(ms);
}

}  // namespace

// Header bytes:
//   b0: 11111111                     sync
//   b1: 111v vllp                    sync, version (vv), layer (ll), protection
//   b2: bbbb ssp-                    bitrate index, sample-rate index, padding
//   b3: ---- --ee                    the two bits the stereo word is taken from
int mp3_decode_frame_header(const uint8_t* p, Mp3Frame* frame) {
  frame->is_valid = 0;
  if (p[0] != 0xFF || p[1] < 0xE0) return -1;

  Mp3Frame out = *frame;
  out.layer = 4 - ((p[1] & 0x06) >> 1);
  if (out.layer == 4) return -1;  // layer code 00 is reserved

  int sample_row;
  int bitrate_row;
  switch (p[1] & 0x18) {
    case 0x18:
      out.version = 1.0;
      sample_row = 0;
      bitrate_row = out.layer - 1;
      break;
    case 0x10:
      out.version = 2.0;
      sample_row = 1;
      bitrate_row = out.layer == 1 ? 3 : 4;
      break;
    case 0x00:
      out.version = 2.5;
      sample_row = 2;
      bitrate_row = out.layer == 1 ? 3 : 4;
      break;
    default:  // 0x08: reserved version
      return -1;
  }

  if (out.layer == 1) {
    out.samples_per_frame = 384;
  } else if (out.layer == 2 || out.version == 1.0) {
    out.samples_per_frame = 1152;
  } else {
    out.samples_per_frame = 576;
  }

  const int bitrate_index = p[2] >> 4;
  const int sample_index = (p[2] & 0x0C) >> 2;
  if (bitrate_index == 0 || bitrate_index == 15 || sample_index == 3) return -1;
  out.bitrate = kBitrates[bitrate_row][bitrate_index];
  out.sample_rate = kSampleRates[sample_row][sample_index];
  out.crc_byte = p[1] & 0xFE;

  // The stereo word comes from the low two bits of the fourth byte, not from
  // the channel-mode bits; only the Xing offset depends on it.
  out.stereo = (p[3] & 0x03) < 3 ? 1 : 0;
  out.padding = (p[2] & 0x02) ? 1 : 0;
  if (out.version == 1.0) {
    out.xing_offset = out.stereo ? 32 : 17;
  } else {
    out.xing_offset = out.stereo ? 17 : 9;
  }

  // The 144000 factor stays for MPEG-2 and MPEG-2.5 layer III too, where a
  // frame holds 576 samples: the length then spans two real frames. The search
  // and the averaging step by it, so their results depend on it.
  if (out.layer == 1) {
    out.frame_length = (12000 * out.bitrate / out.sample_rate + out.padding) * 4;
  } else {
    out.frame_length = 144000 * out.bitrate / out.sample_rate + out.padding;
  }
  if (out.frame_length <= 0 || out.frame_length > kMaxFrameLength) return -1;

  out.is_valid = 1;
  *frame = out;
  return 0;
}

namespace {

void average_bitrate(FileBytes* file, int64_t file_size, Mp3Frame* first) {
  err_log(9, kLogModuleScan, "Starting averaging bitrate\n");
  if (file_size < 0) return;
  const off_t start = static_cast<off_t>(file_size / 2);

  // Most of the ten headers lie in the window, so they are taken from it.
  uint8_t window[kMiddleSize];
  if (read_range(file, start, window, sizeof window) != sizeof window) return;

  Mp3Frame frame{};
  size_t index = 0;
  for (;;) {
    while (index < kMiddleSyncEnd && window[index] != 0xFF) ++index;
    if (index >= kMiddleSyncEnd) {
      err_log(9, kLogModuleScan, "Could not find frame... quitting\n");
      return;
    }
    if (mp3_decode_frame_header(window + index, &frame) == 0) {
      uint8_t next[4];
      const off_t next_pos = start + static_cast<off_t>(index) + frame.frame_length;
      if (!four_bytes_at(file, next_pos, window, start, sizeof window, next)) {
        err_log(9, kLogModuleScan, "Could not read frame header\n");
        return;
      }
      Mp3Frame follower{};
      if (mp3_decode_frame_header(next, &follower) == 0) break;
    }
    ++index;
  }

  // Every valid frame is at least 1 byte long, so the ten reads move forward.
  off_t pos = start + static_cast<off_t>(index);
  int32_t sum = 0;
  for (int i = 0; i < kAveragedFrames; ++i) {
    uint8_t head[4];
    if (!four_bytes_at(file, pos, window, start, sizeof window, head)) {
      err_log(9, kLogModuleScan, "Could not read frame header\n");
      return;
    }
    if (mp3_decode_frame_header(head, &frame) != 0) {
      err_log(9, kLogModuleScan, "Invalid frame header while averaging\n");
      return;
    }
    sum += frame.bitrate;
    pos += frame.frame_length;
  }

  err_log(9, kLogModuleScan, "Old bitrate: %d\n", first->bitrate);
  first->bitrate = sum / kAveragedFrames;
  err_log(9, kLogModuleScan, "New bitrate: %d\n", first->bitrate);
}

}  // namespace

void mp3_average_bitrate(int fd, int64_t file_size, Mp3Frame* first) {
  FileBytes file(fd, static_cast<off_t>(file_size));
  average_bitrate(&file, file_size, first);
}

int scan_get_mp3fileinfo(const char* path, MusicFileInfo* info) {
  struct stat st;  // the size comes from the open's status query
  const Fd fd(open_regular(path, &st));
  if (fd.fd < 0) {
    err_log(2, kLogModuleScan, "Could not open %s for reading\n", path);
    printf("Could not open %s for reading\n", path);
    return -1;
  }
  // Every read below is of the bytes the search needs, so nothing is read
  // twice and the descriptor's position means nothing; the first 4 KiB come
  // with one read.
  FileBytes bytes(fd.fd, st.st_size);
  FileBytes* const file = &bytes;

  Mp3Frame frame{};
  const int64_t file_size = file->size() > 0 ? file->size() : 0;
  info->file_size = static_cast<uint32_t>(file_size);  // the record keeps the low 32 bits

  // The first block decides whether the file can be searched at all. It and
  // every block the search reads again within the first 4 KiB come from
  // FileBytes' memory.
  uint8_t first[kBlockSize];
  bool failed = false;
  if (read_range(file, 0, first, sizeof first, &failed) < sizeof first) {
    if (!failed) {
      printf("Short file: %s\n", path);
      err_log(1, kLogModuleScan, "Short file: %s\n", path);
    } else {
      const char* why = strerror(errno);
      printf("Error reading: %s\n", why);
      err_log(1, kLogModuleScan, "Error reading: %s\n", why);
    }
    return -1;
  }

  off_t offset = 0;
  bool tag_skipped = false;
  uint8_t block[kBlockSize];
  const uint8_t* const head = first;
  if (memcmp(head, "ID3", 3) == 0) {
    err_log(9, kLogModuleScan, "Found ID3 header\n");
    // Synchsafe: seven bits from each of bytes 6 to 9, byte 6 highest.
    const int32_t tag_size = int32_t(head[6] & 0x7F) << 21 | int32_t(head[7] & 0x7F) << 14 |
                             int32_t(head[8] & 0x7F) << 7 | int32_t(head[9] & 0x7F);
    err_log(9, kLogModuleScan, "Header length: %d\n", tag_size);
    offset = tag_size + 10;
    tag_skipped = true;
  }

  // Every way back to the top of this loop either moves the offset forward by
  // more than 974 bytes or clears tag_skipped (which is never set again), so
  // the search ends at the latest with the short read at the end of the file.
  size_t index = 0;
  bool found = false;
  // Holes are asked for only behind a block of nothing but zeros, so an
  // ordinary file searched block by block costs no extra system calls.
  bool zero_block = false;
  while (!found) {
    if (zero_block && !tag_skipped && err_log_level() < 9) offset = past_zero_blocks(file->fd(), offset, file_size);
    zero_block = false;
    err_log(9, kLogModuleScan, "Reading in new block at %d\n", static_cast<int>(offset));
    if (read_range(file, offset, block, sizeof block) != sizeof block) {
      printf("Short read: %s\n", path);
      err_log(1, kLogModuleScan, "Short read: %s\n", path);
      return 0;
    }
    index = 0;

    for (;;) {
      while (index < kLastSyncIndex && block[index] != 0xFF) ++index;

      if (tag_skipped && index != 0) {
        // Behind a tag only a frame right at its end is believed.
        err_log(9, kLogModuleScan, "Bad header... dropping back for full frame search\n");
        tag_skipped = false;
        offset = 0;
        break;
      }
      if (index > kLastSyncIndex) {
        err_log(9, kLogModuleScan, "Block exhausted\n");
        offset += static_cast<off_t>(index);
        zero_block = block[0] == 0 && memcmp(block, block + 1, sizeof block - 1) == 0;
        break;
      }

      bool accepted = false;
      if (mp3_decode_frame_header(block + index, &frame) == 0) {
        err_log(9, kLogModuleScan, "valid header at %d\n", static_cast<int>(index));
        if (is_xing(block + index + 4 + frame.xing_offset)) {
          accepted = true;
        } else {
          const off_t here = offset + static_cast<off_t>(index);
          const off_t next_pos = here + frame.frame_length;
          err_log(9, kLogModuleScan, "Found valid frame at %04x\n", static_cast<unsigned>(here));
          err_log(9, kLogModuleScan, "Checking at %04x\n", static_cast<unsigned>(next_pos));
          uint8_t next[4];
          if (!four_bytes_at(file, next_pos, block, offset, sizeof block, next)) {
            printf("Could not read frame header: %s\n", path);
            err_log(1, kLogModuleScan, "Could not read frame header: %s\n", path);
            return 0;
          }
          Mp3Frame follower{};
          accepted = mp3_decode_frame_header(next, &follower) == 0;
        }
        if (!accepted) err_log(9, kLogModuleScan, "Didn't pan out.\n");
      }

      if (accepted) {
        offset += static_cast<off_t>(index);  // the start of the audio
        found = true;
        break;
      }
      ++index;
      if (tag_skipped) {
        err_log(9, kLogModuleScan, "Bad header... dropping back for full frame search\n");
        tag_skipped = false;
        offset = 0;
        break;
      }
    }
  }

  if (mp3_decode_frame_header(block + index, &frame) != 0) {
    printf("Could not find sync frame: %s\n", path);
    err_log(1, kLogModuleScan, "Could not find sync frame: %s\n", path);
    err_log(1, kLogModuleScan, "%s", kReportLine);
    return 0;
  }

  err_log(9, kLogModuleScan, " MPEG Version: %0.1g\n", frame.version);
  err_log(9, kLogModuleScan, " Layer: %d\n", frame.layer);
  err_log(9, kLogModuleScan, " Sample Rate: %d\n", frame.sample_rate);
  err_log(9, kLogModuleScan, " Bit Rate: %d\n", frame.bitrate);

  const uint8_t* xing = block + index + 4 + frame.xing_offset;
  if (is_xing(xing)) {
    err_log(9, kLogModuleScan, "Found Xing header\n");
    // Flags and frame count are read as the first two of their four bytes,
    // so a Xing header's flags (in its last two bytes) read as 0 and the
    // length below comes from the file size. Kept so on purpose.
    const uint16_t flags = get_be16(xing + 4);
    err_log(9, kLogModuleScan, "Xing Flags: %02X\n", flags);
    if (flags & 0x1) frame.number_of_frames = get_be16(xing + 8);
  }

  average_bitrate(file, file_size, &frame);
  info->bitrate = frame.bitrate;
  info->sample_rate = frame.sample_rate;

  if (info->song_length == 0) {
    double ms;
    if (frame.number_of_frames == 0) {
      ms = static_cast<double>(file_size - offset) * 8.0 / frame.bitrate;
    } else {
      ms = static_cast<double>(frame.number_of_frames) * frame.samples_per_frame * 1000.0 /
           frame.sample_rate;
    }
    info->song_length = to_milliseconds(ms);
    err_log(9, kLogModuleScan, " Song Length: %d\n", info->song_length);
  }
  return 0;
}
