// MPEG-1/2 video stream information for the video rows. Only video start
// codes (00 00 01 xx) are looked at; pack and system headers of a program
// stream are skipped over like any other bytes.
#include "metadata/video.h"

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "metadata/bytes.h"
#include "platform/holders.h"
#include "platform/regular_file.h"

static_assert(sizeof(off_t) == 8, "the build must use 64-bit file offsets");

namespace {

constexpr size_t kBlockSize = 4096;
// The header search gives up past this many bytes, unless that is still
// within the first 1/120 of the file.
constexpr off_t kSearchLimit = 102400;

constexpr uint8_t kSequenceHeader = 0xB3;
constexpr uint8_t kExtension = 0xB5;
constexpr uint8_t kGroupOfPictures = 0xB8;

bool has_mpeg_extension(const char* path) {
  const char* dot = strrchr(path, '.');
  return dot != nullptr && (strcasecmp(dot, ".mpg") == 0 || strcasecmp(dot, ".mpeg") == 0 ||
                            strcasecmp(dot, ".mpeg2") == 0);
}

bool is_start_code(const uint8_t* p, uint8_t code) {
  return p[0] == 0 && p[1] == 0 && p[2] == 1 && p[3] == code;
}
bool is_any_start_code(const uint8_t* p) { return p[0] == 0 && p[1] == 0 && p[2] == 1; }

// Absolute file positions of the start codes the parse needs; -1 when not
// found.
struct StreamHeaders {
  off_t sequence = -1;
  off_t extension1 = -1;  // MPEG-2 sequence extension
  off_t extension2 = -1;  // the next extension, perhaps a sequence display extension
  off_t gop = -1;
  int32_t mpeg_type = 0;
};

// Finds the headers block by block. A block's scan stops at a start code
// that completes a stage, or 4 bytes before its end so that no start code is
// split between blocks; the next block starts where the scan stopped. When
// it stopped at a start code, that code has been dealt with and the next
// scan begins behind it. Returns 0 when the MPEG type and a group of
// pictures were found, else -1.
int find_headers(int fd, off_t file_size, const char* path, StreamHeaders* h) {
  uint8_t buf[kBlockSize];
  off_t block = 0;
  size_t first = 0;  // where the scan of this block begins
  for (;;) {
    if (lseek(fd, block, SEEK_SET) < 0) {
      printf("\nEnd of file1(%s)\n", path);
      return -1;
    }
    ssize_t got = read(fd, buf, sizeof buf);
    if (got < 0) {
      printf("\nEnd of file1(%s)\n", path);
      return -1;
    }
    size_t n = size_t(got);
    if (n < 5) {
      got = read(fd, buf + n, sizeof buf - n);
      if (got < 0) {
        printf("\nEnd of file1(%s)\n", path);
        return -1;
      }
      n += size_t(got);
      // Fewer than 5 bytes cannot be scanned, nor can the search move on.
      if (got == 0 || n < 5) {
        printf("\nEnd of file2(%s)\n", path);
        return -1;
      }
    }

    size_t stop = n - 4;
    size_t i = first;
    first = 0;
    auto stage_done = [&](off_t* where) {
      *where = block + off_t(i);
      stop = i;
      first = 4;
    };
    while (i + 5 <= n) {
      const uint8_t* p = buf + i;
      if (h->sequence < 0) {
        if (is_start_code(p, kSequenceHeader)) {
          stage_done(&h->sequence);
          break;
        }
        ++i;
      } else if (h->mpeg_type == 0) {
        // The first start code behind the sequence header tells the version:
        // MPEG-2 requires a sequence extension right there.
        if (!is_any_start_code(p)) {
          ++i;
          continue;
        }
        if (p[3] == kExtension) {
          h->mpeg_type = 2;
          stage_done(&h->extension1);
          break;
        }
        h->mpeg_type = 1;
        if (p[3] == kGroupOfPictures) {
          stage_done(&h->gop);
          break;
        }
        i += 4;
      } else if (h->mpeg_type == 2 && h->extension2 < 0) {
        if (is_start_code(p, kExtension)) {
          stage_done(&h->extension2);
          break;
        }
        if (is_start_code(p, kGroupOfPictures)) {
          stage_done(&h->gop);
          break;
        }
        ++i;
      } else if (h->gop < 0) {
        if (is_start_code(p, kGroupOfPictures)) {
          stage_done(&h->gop);
          break;
        }
        ++i;
      } else {
        break;
      }
    }
    if (h->mpeg_type != 0 && h->gop >= 0) return 0;

    // A stop at index 0 leaves the block where it was, but the next scan
    // then begins 4 bytes on; each stage ends once, so the search advances.
    block += off_t(stop);
    const off_t limit = file_size / 120 > kSearchLimit ? file_size / 120 : kSearchLimit;
    if (block > limit) {
      puts("find hdr terminated!");
      return -1;
    }
    if (n == sizeof buf && buf[0] == 0 && memcmp(buf, buf + 1, n - 1) == 0) {
      // Zeros hold no start code and end no stage, so every block behind
      // this one that lies wholly in a hole of a sparse file would be
      // scanned alike, each moving on by the block less 4 bytes. Those are
      // stepped over instead of read; the search ends where the limit would
      // have ended it, and resumes before the data with the same overlap.
      constexpr off_t kFull = off_t(sizeof buf);
      constexpr off_t kStep = kFull - 4;
      const off_t data = next_data(fd, block, file_size);
      if (data - block >= kFull) {
        block += ((data - block - kFull) / kStep + 1) * kStep;
        if (block > limit) {
          puts("find hdr terminated!");
          return -1;
        }
      }
    }
  }
}

// Reads len bytes at pos into buf (zeroed by the caller), completing a
// short read. On failure prints the given message with the path and leaves
// in buf what was read.
bool read_at(int fd, off_t pos, uint8_t* buf, size_t len, const char* path,
             const char* read_fail, const char* completion_fail) {
  ssize_t got = -1;
  if (lseek(fd, pos, SEEK_SET) >= 0) got = read(fd, buf, len);
  if (got < 0) {
    printf(read_fail, path);
    return false;
  }
  size_t have = size_t(got);
  while (have < len) {
    got = read(fd, buf + have, len - have);
    if (got <= 0) {  // the end of the file counts as a failure too: the bytes are not there
      printf(completion_fail, path);
      return false;
    }
    have += size_t(got);
  }
  return true;
}

// Walks the whole file for group-of-pictures time codes and adds up the
// runs of consecutive seconds. After a time code it jumps ahead by about a
// group's size, as measured by the picture size or the bitrate. Returns 0,
// or -1 when a read failed.
int measure_duration(int fd, const char* path, const VideoInfo& v, int32_t* seconds) {
  int64_t skip = int64_t(v.width) * v.height;
  if (v.mpeg_type == 1 && v.bitrate > 0 && v.bitrate / 8 < skip) skip = v.bitrate / 8;

  uint8_t buf[kBlockSize];
  off_t block = 0;
  bool in_run = false;
  int64_t run_first = 0;
  int64_t run_last = 0;
  int64_t total = 0;
  int result = 0;
  for (;;) {
    ssize_t got = -1;
    if (lseek(fd, block, SEEK_SET) >= 0) got = read(fd, buf, sizeof buf);
    size_t n = got > 0 ? size_t(got) : 0;
    if (got >= 0 && n < 8) {
      got = read(fd, buf + n, sizeof buf - n);
      if (got > 0) n += size_t(got);
    }
    if (got < 0) {
      printf("\nRead error10(%s)\n", path);
      perror("read");
      result = -1;
      break;
    }
    if (got == 0 || n < 8) break;  // the end of the file

    // A time code needs the start code and the 4 bytes behind it.
    int64_t i = 0;
    while (i + 8 <= int64_t(n)) {
      const uint8_t* p = buf + i;
      if (!is_start_code(p, kGroupOfPictures)) {
        ++i;
        continue;
      }
      // drop(1) hours(5) minutes(6) marker(1) seconds(6) pictures(6) ...
      const uint32_t tc = get_be32(p + 4);
      if ((tc & 0x80000) == 0) {
        i += 4;
        continue;
      }
      const int64_t hours = (tc >> 26) & 0x1F;
      const int64_t minutes = (tc >> 20) & 0x3F;
      const int64_t secs = (tc >> 13) & 0x3F;
      if (minutes < 60 && secs < 60) {
        const int64_t t = (hours * 60 + minutes) * 60 + secs;
        if (!in_run) {
          in_run = true;
          run_first = run_last = t;
        } else if (t - run_last > 3 || run_last - t > 3) {
          total += run_last - run_first + 1;
          run_first = run_last = t;
        } else if (t >= run_last) {
          run_last = t;
        }
      }
      // The jump is measured from the block's start less its length; a
      // picture smaller than a block would send it backwards, so it always
      // goes at least past this start code.
      int64_t next = skip - int64_t(n);
      if (next < i + 4) next = i + 4;
      i = next;
    }
    block += off_t(i);
  }
  if (in_run) total += run_last - run_first + 1;
  *seconds = total > INT32_MAX ? INT32_MAX : int32_t(total);
  return result;
}

}  // namespace

int get_video_info(const char* path, VideoInfo* info) {
  const bool duration_requested = info->duration == kDurationRequest;
  // Whatever happens, the record never keeps the request marker as a time,
  // and the bitrate is not reported.
  struct Finish {
    VideoInfo* info;
    ~Finish() { info->bitrate = 0; }
  } finish{info};
  info->duration = 0;

  if (!has_mpeg_extension(path)) return -1;

  struct stat st;
  Fd fd(open_regular(path, &st));
  if (fd.fd < 0) {
    printf("Can not open <%s> file\n", path);
    return -1;
  }
  const off_t file_size = st.st_size;

  StreamHeaders h;
  const int found = find_headers(fd.fd, file_size, path, &h);
  info->mpeg_type = h.mpeg_type;
  if (found != 0 || h.sequence < 0 || h.gop < 0) return -1;

  int result = 0;
  // Sequence header behind its start code: width(12) height(12) aspect(4)
  // frame_rate(4) bit_rate(18) ...
  uint8_t seq[12] = {};
  if (!read_at(fd.fd, h.sequence, seq, sizeof seq, path, "\nRead error1(%s)\n",
               "\nRead error2(%s)\n")) {
    result = -1;
  }
  const uint8_t* s = seq + 4;
  info->width = s[0] << 4 | s[1] >> 4;
  info->height = (s[1] & 0x0F) << 8 | s[2];
  const int aspect = s[3] >> 4;
  info->frame_rate = s[3] & 0x0F;
  const int32_t bitrate_value = s[4] << 10 | s[5] << 2 | s[6] >> 6;

  if (info->mpeg_type == 1) {
    // MPEG-1 pel aspect codes name the CCIR 601 line standard: 3 and 8 are
    // 625-line, 6 and 12 are 525-line.
    if (aspect == 3 || aspect == 8) {
      info->tv_system = 1;
    } else if (aspect == 6 || aspect == 12) {
      info->tv_system = 2;
    } else {
      info->tv_system = -1;
    }
  } else if (info->mpeg_type == 2) {
    // Sequence extension, 6th byte behind the start code:
    // low_delay(1) frame_rate_extension_n(2) frame_rate_extension_d(5).
    uint8_t ext[10] = {};
    if (!read_at(fd.fd, h.extension1, ext, sizeof ext, path, "\nRead error3(%s)\n",
                 "\nRead error4(%s)\n")) {
      result = -1;
    }
    const int ext_n = (ext[9] >> 5) & 3;
    const int ext_d = ext[9] & 0x1F;
    if (ext_n != 0 || ext_d != 0) printf("frame_rate_extension_n/_d %d %d\n", ext_n, ext_d);
    info->frame_rate = info->frame_rate * (ext_n + 1) / (ext_d + 1);
    info->tv_system = -1;
    if (h.extension2 >= 0) {
      // A sequence display extension (id 2) carries video_format(3) next.
      uint8_t display[5] = {};
      if (!read_at(fd.fd, h.extension2, display, sizeof display, path, "\nRead error5(%s)\n",
                   "\nRead error6(%s)\n")) {
        result = -1;
      }
      if (display[4] >> 4 == 2) info->tv_system = (display[4] >> 1) & 7;
    }
  }

  // 0x3FFFF marks a variable-rate MPEG-1 stream; otherwise units of 400 bit/s.
  if (info->mpeg_type == 1 && bitrate_value == 0x3FFFF) {
    info->bitrate = 0;
  } else {
    info->bitrate = bitrate_value * 400;
  }

  if (info->tv_system != 1 && info->tv_system != 2) {
    // The frame rate code names the system: 25 and 50 Hz are 625-line, the
    // 30 and 60 Hz families 525-line; 24 Hz film goes with 525 at 240 lines.
    switch (info->frame_rate) {
      case 1: info->tv_system = 2; break;
      case 2: info->tv_system = info->height == 240 ? 2 : 1; break;
      case 3: info->tv_system = 1; break;
      case 4: info->tv_system = 2; break;
      case 5: info->tv_system = 2; break;
      case 6: info->tv_system = 1; break;
      case 7: info->tv_system = 2; break;
      case 8: info->tv_system = 2; break;
      default: break;
    }
  }

  uint8_t gop[8] = {};  // read to prove the header is there; not decoded
  if (!read_at(fd.fd, h.gop, gop, sizeof gop, path, "\nRead error7(%s)\n", "\nRead error8(%s)\n")) {
    result = -1;
  }

  if (duration_requested) {
    int32_t seconds = 0;
    if (measure_duration(fd.fd, path, *info, &seconds) != 0) result = -1;
    info->duration = seconds;
  }
  return result;
}
