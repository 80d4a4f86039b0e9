// Photo measurements for the photo rows. Each reader reads a fixed small
// header, except JPEG, whose frame header may sit anywhere in the file and is
// found by scanning the whole of it.
#include "metadata/image.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <memory>
#include <new>

#include "metadata/bytes.h"
#include "metadata/read_range.h"
#include "platform/holders.h"
#include "platform/regular_file.h"

static_assert(sizeof(off_t) == 8, "the build must use 64-bit file offsets");

namespace {

enum ImageType : int32_t { kBmp = 0, kJpeg = 1, kGif = 2, kTiff = 3, kPng = 4 };

// The first bytes of a file: enough for the dispatch, a BMP header, a GIF
// screen descriptor and a PNG header that follows the signature directly.
constexpr size_t kHeadSize = 32;

// The open file as the readers see it. Every range they need has a known
// place and size; the file's first 4 KiB, where the dispatch's bytes and most
// headers and segments lie, are read once and handed out from memory.
struct Source {
  FileBytes* bytes = nullptr;
  off_t size = 0;          // from the open's status query
  uint8_t head[kHeadSize] = {};
  size_t head_len = 0;     // bytes of head the file had

  // Reads up to len bytes at pos into buf, which the caller has zeroed: a
  // short file leaves the rest of the buffer as zeros, which is what the
  // readers then decode. Returns how many bytes arrived.
  size_t read(off_t pos, uint8_t* buf, size_t len) const {
    return pos < 0 ? 0 : read_range(bytes, pos, buf, len);
  }
};

// Each reader records the size it saw; the record has 32 bits for it, so a
// larger file is stored as the largest value that fits.
void note_file_size(ImageInfo* info, const Source& src) {
  const uint64_t size = uint64_t(src.size);
  info->file_size = size > UINT32_MAX ? UINT32_MAX : uint32_t(size);
}

// BMP: bytes 18-19 width, 22-23 height, 28 bits per pixel. Only the low 16
// bits of the 32-bit width and height fields are taken.
void read_bmp(ImageInfo* info, const Source& src) {
  note_file_size(info, src);
  uint8_t head[32] = {};
  src.read(0, head, sizeof head);
  info->width = get_le16(head + 18);
  info->height = get_le16(head + 22);
  info->depth = head[28];
}

// GIF logical screen descriptor at offset 6: width, height (little-endian),
// then the packed byte whose low 3 bits give the global colour table size.
void read_gif(ImageInfo* info, const Source& src) {
  note_file_size(info, src);
  uint8_t desc[5] = {};
  src.read(6, desc, sizeof desc);
  info->width = get_le16(desc);
  info->height = get_le16(desc + 2);
  info->depth = (desc[4] & 7) + 1;
}

// A frame header of 17 bytes (three components): FF Cn 00 11 P HH HH WW WW N.
// From its first byte the scan needs kJpegFrameSpan bytes.
constexpr size_t kJpegFrameSpan = 10;
constexpr size_t kJpegLookahead = kJpegFrameSpan - 1;

// Tests one position with all kJpegFrameSpan bytes present. Returns true
// when the scan has to stop (a progressive header).
bool take_jpeg_frame(const uint8_t* p, ImageInfo* info) {
  if (p[0] != 0xFF || p[2] != 0x00 || p[3] != 0x11) return false;
  if (p[1] != 0xC0 && p[1] != 0xC2) return false;
  info->height = get_be16(p + 5);
  info->width = get_be16(p + 7);
  info->depth = p[9] * 8;
  return p[1] == 0xC2;  // progressive: its values stand; baseline: a later one overrides
}

// Zeros never start a frame header. So of a hole in a sparse file only its
// last kJpegLookahead zeros are read: a header that begins just before the
// hole reaches into them as it would into its first ones. The rest of the
// hole is stepped over, with the same result as reading every zero of it.
void skip_hole(FILE* f, off_t size, off_t* pos, uint64_t* data_left) {
  if (*data_left < 2 * kJpegScanChunk) return;
  const off_t at = *pos;
  const off_t data = next_data(f, at, size);
  const off_t skip = data - at - static_cast<off_t>(kJpegLookahead);
  if (skip < static_cast<off_t>(kJpegScanChunk) || uint64_t(skip) > *data_left) return;
  *pos = at + skip;
  *data_left -= uint64_t(skip);
}

// The frame header is looked for in the bytes from offset 10 on (the
// dispatch has already consumed the first 10), followed by 10 zero bytes, as
// if the whole file from offset 10 had been read into a buffer of the file's
// size. The file is streamed through a fixed window instead, so a share
// holding a huge file named .jpg costs no memory; consecutive windows overlap
// by kJpegLookahead bytes so every position is tested once with its whole
// span in view. Bytes the file no longer has (it shrank, or a read failed)
// count as zeros like the padding; zeros never start a header, so the scan
// may end kJpegFrameSpan zeros after the last byte actually read.
void read_jpeg(ImageInfo* info, const Source& src) {
  note_file_size(info, src);
  const off_t size = src.size;
  uint64_t data_left = size > 10 ? uint64_t(size) - 10 : 0;
  // The virtual buffer is size bytes long; with fewer than 10 the read after
  // the dispatch finds nothing and the buffer is all zeros.
  uint64_t pad_left = size >= 10 ? 10 : uint64_t(size);

  constexpr size_t kWindowSize = kJpegScanChunk + kJpegLookahead;
  std::unique_ptr<uint8_t[]> holder(new (std::nothrow) uint8_t[kWindowSize]);
  if (!holder) return;
  uint8_t* const window = holder.get();
  size_t have = 0;
  off_t pos = 10;
  for (;;) {
    skip_hole(info->file, size, &pos, &data_left);
    size_t room = kWindowSize - have;
    while (room > 0 && data_left > 0) {
      const size_t want = data_left < room ? size_t(data_left) : room;
      const size_t got = src.read(pos, window + have, want);
      pos += static_cast<off_t>(got);
      have += got;
      room -= got;
      data_left -= got;
      if (got < want) data_left = 0;  // shorter than its status said
    }
    if (data_left == 0 && room > 0 && pad_left > 0) {
      const size_t n = pad_left < room ? size_t(pad_left) : room;
      memset(window + have, 0, n);
      have += n;
      pad_left -= n;
    }
    const bool last = data_left == 0 && pad_left == 0;
    if (have >= kJpegFrameSpan) {
      const size_t end = have - kJpegLookahead;  // positions with a full span
      for (size_t i = 0; i < end; ++i) {
        const void* hit = memchr(window + i, 0xFF, end - i);
        if (hit == nullptr) break;
        i = size_t(static_cast<const uint8_t*>(hit) - window);
        if (take_jpeg_frame(window + i, info)) return;
      }
      memmove(window, window + end, kJpegLookahead);
      have = kJpegLookahead;
    }
    if (last) return;
  }
}

// TIFF field sizes by field type 0-12 (BYTE, ASCII, SHORT, LONG, RATIONAL,
// ...); unknown types count as size 0.
constexpr uint8_t kTiffTypeSize[13] = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8};

uint32_t tiff_type_size(uint16_t type) { return type < 13 ? kTiffTypeSize[type] : 0; }

// An unsigned number of n bytes in the file's byte order, cut to 32 bits.
uint32_t get_ordered(const uint8_t* p, size_t n, bool big_endian) {
  uint64_t v = 0;
  for (size_t k = 0; k < n; ++k) {
    const uint64_t byte = big_endian ? p[k] : p[n - 1 - k];
    v = v << 8 | byte;
  }
  return uint32_t(v);
}

// Directory entries are read this many at a time: the sizes come early in a
// directory, so one read usually holds them, and a huge directory is still
// read in small pieces.
constexpr unsigned kTiffBatch = 16;
constexpr size_t kTiffEntrySize = 12;

void read_tiff(ImageInfo* info, const Source& src) {
  note_file_size(info, src);
  uint8_t head[8] = {};
  src.read(0, head, sizeof head);
  const bool be = head[0] == 'M' && head[1] == 'M';
  const uint32_t ifd = be ? get_be32(head + 4) : get_le32(head + 4);

  uint8_t count_bytes[2] = {};
  src.read(off_t(ifd), count_bytes, sizeof count_bytes);
  const unsigned entries = be ? get_be16(count_bytes) : get_le16(count_bytes);
  off_t pos = off_t(ifd) + 2;
  uint8_t batch[kTiffBatch * kTiffEntrySize];
  size_t batch_len = 0;   // bytes the last read brought
  size_t batch_end = 0;   // bytes it asked for
  size_t batch_at = 0;    // the next entry's place in it

  bool three_bits = false;
  uint32_t bits_size = 0;
  uint32_t bits_offset = 0;
  int found = 0;
  // At most 65535 entries, and a short read ends the directory: the bytes
  // beyond the file's end would all be zeros, which match no tag.
  for (unsigned e = 0; e < entries && found < 3; ++e) {
    if (batch_at == batch_end) {
      const unsigned n = entries - e < kTiffBatch ? entries - e : kTiffBatch;
      batch_end = n * kTiffEntrySize;
      batch_len = src.read(pos, batch, batch_end);
      pos += static_cast<off_t>(batch_end);
      batch_at = 0;
    }
    uint8_t entry[kTiffEntrySize] = {};
    const size_t left = batch_len > batch_at ? batch_len - batch_at : 0;
    const size_t got = left < sizeof entry ? left : sizeof entry;
    memcpy(entry, batch + batch_at, got);
    batch_at += sizeof entry;
    if (got == 0) break;
    const uint16_t tag = be ? get_be16(entry) : get_le16(entry);
    const uint32_t size = tiff_type_size(be ? get_be16(entry + 2) : get_le16(entry + 2));
    // The count is judged by its low byte alone: the last byte in
    // big-endian order, the first in little-endian order.
    const uint8_t count = be ? entry[7] : entry[4];
    uint32_t value = 0;
    if (!be) {
      value = get_le32(entry + 8);
    } else if (count == 1) {  // left-justified in the 4-byte value field
      value = get_ordered(entry + 8, size < 4 ? size : 4, true);
    } else if (count == 3) {  // three values never fit: the field is an offset
      value = get_be32(entry + 8);
    }
    if (tag == 256) {
      info->width = int32_t(value);
      ++found;
    } else if (tag == 257) {
      info->height = int32_t(value);
      ++found;
    } else if (tag == 258) {
      if (count == 1) {
        info->depth = int32_t(value);
      } else if (count == 3) {
        three_bits = true;
        bits_size = size;
        bits_offset = value;
      }
      ++found;
    }
    if (got < sizeof entry) break;
  }

  if (three_bits) {
    uint8_t bits[3 * 8] = {};
    src.read(off_t(bits_offset), bits, 3 * bits_size);
    uint32_t depth = uint32_t(info->depth);
    for (uint32_t k = 0; k < 3; ++k) depth += get_ordered(bits + k * bits_size, bits_size, be);
    info->depth = int32_t(depth);
  }
}

// Walking a PNG's chunks ends at IHDR, at IEND, at the file's end, or after
// this many chunks: lengths are unsigned, so every step goes forward, but a
// huge file of tiny chunks would otherwise be walked to its end.
constexpr int kPngMaxChunks = 65536;

void read_png(ImageInfo* info, const Source& src) {
  note_file_size(info, src);
  off_t pos = 8;
  bool have_ihdr = false;
  for (int n = 0; n < kPngMaxChunks; ++n) {
    uint8_t chunk[8] = {};
    if (src.read(pos, chunk, sizeof chunk) < sizeof chunk) return;  // no IHDR before the end
    pos += static_cast<off_t>(sizeof chunk);
    if (memcmp(chunk + 4, "IHDR", 4) == 0) {
      have_ihdr = true;
      break;
    }
    pos += off_t(get_be32(chunk)) + 4;  // data and CRC
    if (memcmp(chunk + 4, "IEND", 4) == 0) return;
  }
  if (!have_ihdr) return;

  uint8_t ihdr[13] = {};
  src.read(pos, ihdr, sizeof ihdr);
  info->width = int32_t(get_be32(ihdr));
  info->height = int32_t(get_be32(ihdr + 4));
  const int bit_depth = ihdr[8];
  switch (ihdr[9]) {  // colour type
    case 0:  // grey
    case 3:  // palette index
      info->depth = bit_depth;
      break;
    case 2:  // RGB
      if (bit_depth == 8) info->depth = 24;
      if (bit_depth == 16) info->depth = 48;
      break;
    case 4:  // grey and alpha
      if (bit_depth == 8) info->depth = 16;
      if (bit_depth == 16) info->depth = 32;
      break;
    case 6:  // RGB and alpha; 48 at 16 bits is what the library has always stored
      if (bit_depth == 8) info->depth = 32;
      if (bit_depth == 16) info->depth = 48;
      break;
    default:
      break;
  }
}

constexpr char kPngSignature[] = "\x89PNG\r\n\x1a\n";

}  // namespace

int get_img_size(ImageInfo* info) {
  // An unterminated path cannot be opened (nor printed) safely.
  const bool terminated = memchr(info->path, '\0', sizeof info->path) != nullptr;
  struct stat st;
  UniqueFile file(terminated ? fopen_regular(info->path, &st) : nullptr);
  if (!file) {
    puts("get_img_size(): open file error");
    return 0;
  }
  info->file = file.get();
  FileBytes bytes(fileno(info->file), st.st_size);
  Source src;
  src.bytes = &bytes;
  src.head_len = read_range(&bytes, 0, src.head, sizeof src.head);

  // The tests read the first bytes as text, so each looks only in front of
  // the first zero byte: "BM" behind a JPEG marker makes a BMP.
  char magic[11] = {};
  memcpy(magic, src.head, 10);
  const uint8_t* raw = src.head;
  void (*reader)(ImageInfo*, const Source&) = nullptr;
  if (strstr(magic, "BM") != nullptr) {
    info->type = kBmp;
    reader = read_bmp;
  } else if (raw[0] == 0xFF && raw[1] == 0xD8) {
    info->type = kJpeg;
    reader = read_jpeg;
  } else if (strstr(magic, "GIF") != nullptr) {
    info->type = kGif;
    reader = read_gif;
  } else if (strstr(magic, "II") != nullptr || strstr(magic, "MM") != nullptr) {
    info->type = kTiff;
    reader = read_tiff;
  } else if (strstr(magic, kPngSignature) != nullptr) {
    info->type = kPng;
    reader = read_png;
  }
  if (reader != nullptr) {
    src.size = st.st_size < 0 ? 0 : st.st_size;
    reader(info, src);
  } else {
    info->type = kJpeg;
    info->file = nullptr;
    printf("Can't verify image file of type!!filename: %s\n", info->path);
    return 0;
  }
  info->file = nullptr;
  return 1;
}
