#include "metadata/id3_reduce.h"

#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <memory>
#include <vector>

#include "metadata/bytes.h"
#include "metadata/read_range.h"
#include "platform/holders.h"
#include "platform/regular_file.h"

namespace {

constexpr size_t kBlock = 64u << 10;
// Tags one file may hold in all; a SEEK chain longer than this is not followed further
// (libid3tag would follow one that comes back to the same tag for ever).
constexpr size_t kMaxTags = 256;
// The longest prefix of a v2.4 extended header its flags can describe: 255 flag bytes,
// each bit with at most 128 bytes of data.
constexpr size_t kExtHeaderRead = 5 + 255 + 255 * 8 * 128;

uint32_t syncsafe(const uint8_t* p, int n) {
  uint32_t v = 0;
  for (int i = 0; i < n; ++i) v = v << 7 | (p[i] & 0x7F);
  return v;
}

// One zlib stream and its buffers for every compressed frame of a file: a tag may hold
// thousands of them, and setting up a stream and two blocks for each is most of the work.
struct Inflater : NoCopy {
  z_stream z;
  bool ready = false;
  std::vector<uint8_t> input, output;
  ~Inflater() {
    if (ready) inflateEnd(&z);
  }
  // A stream at its start; false when zlib cannot give one.
  bool start() {
    if (ready) return inflateReset(&z) == Z_OK;
    memset(&z, 0, sizeof z);
    if (inflateInit(&z) != Z_OK) return false;
    input.resize(kBlock);
    output.resize(kBlock);
    return ready = true;
  }
};

// The limits one file's tags share, and its inflater.
struct Allowance {
  size_t reduced = kId3ReducedMax;
  unsigned long long inflate = kId3InflateMax;
  unsigned long long read = kId3ReadMax;
  Inflater inflater;
};

// The decoded bytes of a range of the file: with unsynchronisation undone when asked, a zero
// byte right after 0xFF is dropped, as libid3tag drops it.
class Source {
 public:
  Source(FileBytes* file, off_t begin, off_t end, bool unsync, Allowance* allow)
      : file_(file), raw_(begin), end_(end), unsync_(unsync), allow_(allow) {}

  // Up to n decoded bytes into out, or skipped when out is null. Fewer only at the end of
  // the range or when the file cannot be read.
  uint64_t read(uint8_t* out, uint64_t n) {
    uint64_t done = 0;
    while (done < n && raw_ < end_) {
      if (!unsync_ && out == nullptr) {  // a plain skip reads nothing
        const uint64_t step = n - done < uint64_t(end_ - raw_) ? n - done : uint64_t(end_ - raw_);
        raw_ += off_t(step);
        done += step;
        break;
      }
      if (!(raw_ >= buf_at_ && raw_ < buf_at_ + off_t(len_))) {
        // A hole reads as zeros, which unsynchronisation leaves alone (but for one right
        // after 0xFF): a sparse tag of 256 MiB is stepped over, not read.
        const off_t hole_end = hole_from(raw_);
        if (hole_end > raw_) {
          if (after_ff_) {
            after_ff_ = false;
            ++raw_;
            continue;
          }
          uint64_t take = uint64_t(hole_end - raw_);
          if (take > n - done) take = n - done;
          if (out != nullptr) {
            if (take > allow_->read) {
              failed_ = true;
              break;
            }
            allow_->read -= take;
            memset(out + done, 0, size_t(take));
          }
          raw_ += off_t(take);
          done += take;
          continue;
        }
        if (!fill()) break;
      }
      const uint8_t* p = buf_.get() + (raw_ - buf_at_);
      size_t take = size_t(buf_at_ + off_t(len_) - raw_);
      if (after_ff_) {
        after_ff_ = false;
        if (*p == 0) {
          ++raw_;
          continue;
        }
      }
      if (take > n - done) take = size_t(n - done);
      if (unsync_) {
        const void* ff = memchr(p, 0xFF, take);
        if (ff != nullptr) {
          take = size_t(static_cast<const uint8_t*>(ff) - p) + 1;
          after_ff_ = true;
        }
      }
      if (out != nullptr) memcpy(out + done, p, take);
      raw_ += off_t(take);
      done += take;
    }
    pos_ += done;
    return done;
  }
  uint64_t pos() const { return pos_; }
  off_t raw() const { return raw_; }
  // Whether a read stopped early: the file could not be read, or the allowance ran out.
  bool failed() const { return failed_; }

 private:
  // Where the hole that starts at `at` ends (within the range), or `at` itself when data
  // starts there, the range is short, or the file system cannot tell.
  off_t hole_from(off_t at) const {
    if (end_ - at < off_t(4 * kBlock)) return at;
    const off_t data = next_data(file_->fd(), at, end_);
    return data < end_ ? data : end_;
  }

  // The block is left uninitialised: only the bytes pread fills are ever looked at, and
  // clearing 64 KiB for every tag cost more than reading it.
  bool fill() {
    const size_t want = end_ - raw_ < off_t(kBlock) ? size_t(end_ - raw_) : kBlock;
    if (want > allow_->read) {
      failed_ = true;
      return false;
    }
    allow_->read -= want;
    if (cap_ < want) {
      buf_.reset(new uint8_t[want]);
      cap_ = want;
    }
    const ssize_t got = file_->pread(buf_.get(), want, raw_);
    len_ = got > 0 ? size_t(got) : 0;
    buf_at_ = raw_;
    failed_ = got <= 0;
    return !failed_;
  }

  FileBytes* file_;
  off_t raw_, end_;
  bool unsync_;
  Allowance* allow_;
  bool after_ff_ = false;
  bool failed_ = false;
  uint64_t pos_ = 0;
  std::unique_ptr<uint8_t[]> buf_;
  size_t cap_ = 0, len_ = 0;
  off_t buf_at_ = 0;
};

// At most `left` decoded bytes of a source: one frame's data.
struct Limited {
  Source* src;
  uint64_t left;
  uint64_t read(uint8_t* out, uint64_t n) {
    const uint64_t got = src->read(out, n < left ? n : left);
    left -= got;
    return got;
  }
};

// Whether the compressed data in `in` inflates as zlib's uncompress() does into a buffer of
// `declared` bytes, which is how libid3tag inflates a frame: the stream must end, having
// given exactly that many bytes (uncompress() reports a stream of one byte into an empty
// buffer as an empty one). The first kId3FrameProbe bytes it gives go to *head.
bool inflates_to(Limited* in, uint64_t declared, Allowance* allow, std::vector<uint8_t>* head) {
  if (declared > allow->inflate) return false;
  Inflater& inf = allow->inflater;
  if (!inf.start()) return false;
  z_stream& z = inf.z;
  std::vector<uint8_t>& input = inf.input;
  std::vector<uint8_t>& output = inf.output;
  uint64_t produced = 0;
  int rc = Z_OK;
  while (rc == Z_OK && produced <= declared) {
    if (z.avail_in == 0) {
      const uint64_t got = in->read(input.data(), input.size());
      if (got == 0) break;  // the data ends before the stream does
      z.next_in = input.data();
      z.avail_in = uInt(got);
    }
    z.next_out = output.data();
    z.avail_out = uInt(output.size());
    rc = inflate(&z, Z_NO_FLUSH);
    const size_t made = output.size() - z.avail_out;
    if (head->size() < kId3FrameProbe) {
      const size_t keep = kId3FrameProbe - head->size() < made ? kId3FrameProbe - head->size() : made;
      head->insert(head->end(), output.data(), output.data() + keep);
    }
    produced += made;
  }
  allow->inflate -= produced < allow->inflate ? produced : allow->inflate;
  return rc == Z_STREAM_END && (produced == declared || (declared == 0 && produced == 1));
}

// A reduced copy of one ID3v2 tag, frame by frame.
class Reducer {
 public:
  Reducer(FileBytes* file, int version, Allowance* allow) : file_(file), version_(version), allow_(allow) {}

  // Walks the frames of body from its current position to `end` as libid3tag's tag parser
  // walks them. False when libid3tag would reject the tag.
  bool frames(Source* body, uint64_t end) {
    const uint64_t header = version_ == 2 ? 6 : 10;
    while (body->pos() < end) {
      uint8_t fh[10];
      if (body->read(fh, 1) != 1) return false;
      if (fh[0] == 0) break;  // padding
      const uint64_t at = body->pos() - 1;
      if (end - at < header || body->read(fh + 1, header - 1) != header - 1) return false;
      const uint64_t size = version_ == 2 ? uint64_t(fh[3]) << 16 | fh[4] << 8 | fh[5]
                            : version_ == 3 ? get_be32(fh + 4)
                                            : syncsafe(fh + 4, 4);
      if (size > end - at - header) return false;
      if (!frame(body, fh, size)) return false;
      const uint64_t rest = at + header + size - body->pos();
      if (body->read(nullptr, rest) != rest) return false;
    }
    return true;
  }

  std::vector<uint8_t> out = std::vector<uint8_t>(10);  // room for the tag header

 private:
  // One frame whose header is fh and whose `size` bytes follow in body. Frames libid3tag
  // reads without looking into them (unknown format flags, encryption, grouping) and frames
  // that carry no text are cut; a compressed frame that is cut must still inflate.
  bool frame(Source* body, uint8_t* fh, uint64_t size) {
    const int flags = version_ == 2 ? 0 : get_be16(fh + 8);
    const bool text = fh[0] == 'T' || memcmp(fh, version_ == 2 ? "COM" : "COMM", version_ == 2 ? 3 : 4) == 0 ||
                      memcmp(fh, version_ == 2 ? "IPL" : "IPLS", version_ == 2 ? 3 : 4) == 0;
    const bool opaque = version_ == 4 ? (flags & 0xF4) != 0 : version_ == 3 && (flags & 0x7F) != 0;
    const bool compressed = !opaque && (version_ == 4 ? (flags & 0x08) != 0 : version_ == 3 && (flags & 0x80) != 0);
    const uint64_t lead = opaque ? 0 : version_ == 4 ? (flags & 0x01 ? 4 : 0) : compressed ? 4 : 0;
    const uint64_t limit = text && !opaque ? kId3TextFrameMax : kId3FrameProbe;
    uint8_t lead_bytes[4];
    uint64_t declared = 0;
    if (lead > 0 && size >= lead) {
      if (body->read(lead_bytes, lead) != lead) return false;
      if (compressed) declared = version_ == 4 ? syncsafe(lead_bytes, 4) : get_be32(lead_bytes);
    }
    const uint64_t lead_read = size >= lead ? lead : 0;
    if (size <= limit && (!compressed || declared <= limit)) {
      // Whole, as it is: libid3tag decides about it.
      return emit(fh, flags, lead_bytes, lead_read, body, size - lead_read);
    }
    if (opaque) return emit(fh, flags, lead_bytes, lead_read, body, limit - lead_read);

    // Large and parsed by libid3tag: its first decoded bytes decide how, so those are kept,
    // without the unsynchronisation or compression that made them.
    Source unsynced(file_, body->raw(), body->raw() + off_t(size - lead), true, allow_);
    const bool frame_unsync = version_ == 4 && (flags & 0x02) != 0;
    Limited data{frame_unsync ? &unsynced : body, frame_unsync ? UINT64_MAX : size - lead};
    std::vector<uint8_t> head;
    if (compressed) {
      if (!inflates_to(&data, declared, allow_, &head)) return false;
    } else {
      head.resize(kId3FrameProbe);
      head.resize(data.read(head.data(), head.size()));
    }
    const int kept_flags = version_ == 4 ? flags & ~0x0B : flags & ~0x80;
    return emit_bytes(fh, kept_flags, head.data(), head.size());
  }

  // Appends a frame header of fh's identifier with these flags and `size` (which the
  // allowance keeps far below what any version can write).
  void put_header(const uint8_t* fh, int flags, uint64_t size) {
    uint8_t h[10];
    const size_t n = version_ == 2 ? 6 : 10;
    memcpy(h, fh, version_ == 2 ? 3 : 4);
    if (version_ == 2) {
      h[3] = uint8_t(size >> 16);
      h[4] = uint8_t(size >> 8);
      h[5] = uint8_t(size);
    } else {
      for (int i = 0; i < 4; ++i)
        h[4 + i] = version_ == 3 ? uint8_t(size >> (24 - 8 * i)) : uint8_t((size >> (21 - 7 * i)) & 0x7F);
      h[8] = uint8_t(flags >> 8);
      h[9] = uint8_t(flags);
    }
    out.insert(out.end(), h, h + n);
  }

  // Whether `bytes` more fit this file's allowance; takes them when they do.
  bool take(uint64_t bytes) {
    if (bytes > allow_->reduced) return false;
    allow_->reduced -= size_t(bytes);
    return true;
  }

  bool emit(const uint8_t* fh, int flags, const uint8_t* lead, uint64_t lead_size, Source* body, uint64_t rest) {
    const uint64_t header = version_ == 2 ? 6 : 10;
    if (!take(header + lead_size + rest)) return true;  // past the allowance: left out
    put_header(fh, flags, lead_size + rest);
    out.insert(out.end(), lead, lead + lead_size);
    const size_t at = out.size();
    out.resize(at + rest);
    return body->read(out.data() + at, rest) == rest;
  }

  bool emit_bytes(const uint8_t* fh, int flags, const uint8_t* data, size_t size) {
    const uint64_t header = version_ == 2 ? 6 : 10;
    if (!take(header + size)) return true;
    put_header(fh, flags, size);
    out.insert(out.end(), data, data + size);
    return true;
  }

  FileBytes* file_;
  int version_;
  Allowance* allow_;
};

uint32_t crc_of(Source* src, uint64_t n) {
  std::vector<uint8_t> buf(kBlock);
  uLong crc = crc32(0, nullptr, 0);
  while (n > 0) {
    const uint64_t got = src->read(buf.data(), n < buf.size() ? n : buf.size());
    if (got == 0) break;
    crc = crc32(crc, buf.data(), uInt(got));
    n -= got;
  }
  return uint32_t(crc);
}

// The ID3v2 tag whose 10-byte header `head` is at `at` of the file, parsed by libid3tag from
// its reduced copy; null when libid3tag would not read it. *update is set for a v2.4 tag
// that declares itself an update of the tags before it.
struct id3_tag* read_v2(FileBytes* file, off_t at, const uint8_t* head, Allowance* allow, bool* update) {
  const int version = head[3], flags = head[5];
  if (version < 2 || version > 4 || (version == 2 && (flags & 0x40))) return nullptr;
  const uint32_t size = syncsafe(head + 6, 4);
  const bool unsync = version < 4 && (flags & 0x80);
  const off_t begin = at + 10, finish = begin + off_t(size);
  uint64_t end = size;
  if (unsync) {
    Source count(file, begin, finish, true, allow);
    end = count.read(nullptr, UINT64_MAX);
    if (count.failed()) return nullptr;
  }
  Source body(file, begin, finish, unsync, allow);
  uint64_t frames_begin = 0;
  bool check_crc = false;
  unsigned long crc = 0;
  *update = false;
  if (flags & 0x40) {
    uint8_t eh[10];
    if (end < 4 || body.read(eh, 4) != 4) return nullptr;
    if (version == 3) {
      const uint32_t ext_size = get_be32(eh);
      if (ext_size > end - 4) return nullptr;
      frames_begin = 4 + uint64_t(ext_size);
      if (ext_size >= 6) {
        if (body.read(eh + 4, 6) != 6) return nullptr;
        const uint32_t padding = get_be32(eh + 6);
        if (padding > end - frames_begin) return nullptr;
        end -= padding;
        if (get_be16(eh + 4) & 0x8000) {  // a CRC follows, or the tag is rejected
          uint8_t c[4];
          if (ext_size < 10) return nullptr;
          if (body.read(c, 4) != 4) return nullptr;
          crc = get_be32(c);
          check_crc = true;
        }
      }
    } else {
      const uint32_t ext_size = syncsafe(eh, 4);
      if (ext_size < 6 || ext_size > end) return nullptr;
      std::vector<uint8_t> ext(eh, eh + 4);
      ext.resize(ext_size < kExtHeaderRead ? ext_size : kExtHeaderRead);
      if (body.read(ext.data() + 4, ext.size() - 4) != ext.size() - 4) return nullptr;
      const size_t bytes = ext[4];
      if (bytes < 1 || bytes > ext_size - 5) return nullptr;
      // Every flag bit set announces a length byte (at most 127) and that much data.
      size_t data = 5 + bytes;
      for (size_t i = 0; i < bytes; ++i) {
        for (int bits = ext[5 + i]; bits != 0; bits = (bits << 1) & 0xFF) {
          if (!(bits & 0x80)) continue;
          if (data == ext_size) return nullptr;
          const size_t length = ext[data++];
          if (length > 0x7F || length > ext_size - data) return nullptr;
          data += length;
        }
      }
      const int ext_flags = ext[5];
      size_t p = 5 + bytes;
      *update = (ext_flags & 0x40) != 0;
      if (ext_flags & 0x40) {
        if (p >= ext.size()) return nullptr;
        p += 1 + size_t(ext[p]);
      }
      if (ext_flags & 0x20) {
        if (p >= ext.size() || ext[p] < 5 || p + 6 > ext.size()) return nullptr;
        for (int i = 1; i <= 5; ++i) crc = crc << 7 | (ext[p + i] & 0x7F);
        check_crc = true;
        p += 1 + size_t(ext[p]);
      }
      if ((ext_flags & 0x10) && (p >= ext.size() || ext[p] == 0)) return nullptr;  // restrictions
      frames_begin = ext_size;
    }
    if (check_crc) {
      Source again(file, begin, finish, unsync, allow);
      again.read(nullptr, frames_begin);
      if (crc != crc_of(&again, end - frames_begin) || again.failed()) return nullptr;
    }
    const uint64_t skip = frames_begin - body.pos();
    if (body.read(nullptr, skip) != skip) return nullptr;
  }

  Reducer reducer(file, version, allow);
  if (!reducer.frames(&body, end)) return nullptr;
  std::vector<uint8_t>& out = reducer.out;
  const uint32_t reduced = uint32_t(out.size() - 10);
  const uint8_t new_flags = uint8_t(flags & ~0x40 & ~(unsync ? 0x80 : 0));
  const uint8_t header[10] = {'I', 'D', '3', head[3], head[4], new_flags, uint8_t((reduced >> 21) & 0x7F),
                              uint8_t((reduced >> 14) & 0x7F), uint8_t((reduced >> 7) & 0x7F), uint8_t(reduced & 0x7F)};
  memcpy(out.data(), header, sizeof header);
  if (version == 4 && (flags & 0x10)) {  // a footer repeats the header
    out.insert(out.end(), header, header + 10);
    memcpy(out.data() + out.size() - 10, "3DI", 3);
  }
  return id3_tag_parse(out.data(), out.size());
}

// The tags of one file in the order libid3tag's file reader finds them, merged into one.
class FileTags {
 public:
  FileTags(FileBytes* file) : file_(file), size_(file->size()) {}
  ~FileTags() {
    for (const Found& f : found_) id3_tag_delete(f.tag);
    if (merged_ != nullptr) id3_tag_delete(merged_);
  }

  // What id3_tag_query says of the bytes at `at` (fewer than ten near the end).
  // The bytes are kept: the header of a tag found there is not read again.
  long query(off_t at) {
    if (at < 0 || at >= size_) return 0;
    const ssize_t n = read_at(at, queried_, sizeof queried_);
    queried_at_ = n == ssize_t(sizeof queried_) ? at : -1;
    return n > 0 ? id3_tag_query(queried_, id3_length_t(n)) : 0;
  }

  // The tag of `length` bytes at `location`, as libid3tag adds one: the same tag again is
  // not read twice, one overlapping a tag already read is not read at all. *next is where
  // the file's position is left. Null when no tag was added.
  struct id3_tag* add(off_t location, long length, off_t* next) {
    *next = location;
    const uint64_t begin = uint64_t(location), end = begin + uint64_t(length);
    for (const Found& f : found_) {
      const uint64_t b = uint64_t(f.location), e = b + uint64_t(f.length);
      if (begin == b && end == e) return f.tag;
      if (begin < e && end > b) return nullptr;
    }
    if (found_.size() >= kMaxTags || location + off_t(length) > size_) return nullptr;
    uint8_t head[128];
    const size_t want = length == 128 ? 128 : 10;
    if (want == sizeof queried_ && location == queried_at_)
      memcpy(head, queried_, want);
    else if (read_at(location, head, want) != ssize_t(want))
      return nullptr;
    bool update = false;
    struct id3_tag* tag = memcmp(head, "TAG", 3) == 0 ? id3_tag_parse(head, id3_length_t(length))
                                                      : read_v2(file_, location, head, &allow_, &update);
    if (tag == nullptr) return nullptr;
    if (!update) id3_tag_clearframes(merged_);
    struct id3_frame* frame;
    for (unsigned int i = 0; (frame = id3_tag_findframe(tag, "", i)) != nullptr; ++i) {
      if (id3_tag_attachframe(merged_, frame) != 0) {
        id3_tag_delete(tag);
        return nullptr;
      }
    }
    found_.push_back({location, length, tag});
    *next = location + off_t(length);
    return tag;
  }

  struct id3_tag* merged_ = id3_tag_new();

 private:
  struct Found {
    off_t location;
    long length;
    struct id3_tag* tag;
  };
  // Up to n bytes at `at`. The file's last bytes, where an ID3v1 tag and the
  // footer of the tag before it or at the very end lie, are read once and
  // handed out from here.
  ssize_t read_at(off_t at, uint8_t* out, size_t n) {
    const off_t tail_from = size_ > off_t(sizeof tail_) ? size_ - off_t(sizeof tail_) : 0;
    if (at < tail_from) return file_->pread(out, n, at);
    if (!tail_read_) {
      const ssize_t got = file_->pread(tail_, size_t(size_ - tail_from), tail_from);
      tail_len_ = got > 0 ? size_t(got) : 0;
      tail_read_ = true;
    }
    const size_t skip = size_t(at - tail_from);
    if (skip >= tail_len_) return 0;
    const size_t take = n < tail_len_ - skip ? n : tail_len_ - skip;
    memcpy(out, tail_ + skip, take);
    return ssize_t(take);
  }

  FileBytes* file_;
  off_t size_;
  uint8_t tail_[128 + 10];
  size_t tail_len_ = 0;
  bool tail_read_ = false;
  uint8_t queried_[ID3_TAG_QUERYSIZE];
  off_t queried_at_ = -1;
  std::vector<Found> found_;
  Allowance allow_;
};

}  // namespace

struct id3_tag* id3_read_file_tags(int fd, long long known_size) {
  off_t size = off_t(known_size);
  if (known_size < 0) {
    struct stat st;
    if (fstat(fd, &st) != 0) return nullptr;
    size = st.st_size;
  }
  FileBytes file(fd, size);
  return id3_read_file_tags(&file);
}

struct id3_tag* id3_read_file_tags(FileBytes* file) {
  const off_t size = file->size();
  FileTags tags(file);
  if (tags.merged_ == nullptr) return nullptr;
  off_t next = 0;

  // An ID3v1 tag in the last 128 bytes.
  bool has_v1 = false;
  if (size >= 128) {
    const long q = tags.query(size - 128);
    has_v1 = q > 0 && tags.add(size - 128, q, &next) != nullptr;
  }

  // The tag at the start, and those its SEEK frames lead to, each counted from where the
  // one before ends.
  off_t at = 0;
  long q = tags.query(0);
  struct id3_tag* tag = q > 0 ? tags.add(0, q, &at) : nullptr;
  for (size_t hops = 0; tag != nullptr && hops < kMaxTags; ++hops) {
    const struct id3_frame* seek = id3_tag_findframe(tag, "SEEK", 0);
    if (seek == nullptr) break;
    const signed long offset = id3_field_getint(id3_frame_field(seek, 0));
    if (offset < 0) break;
    at += off_t(offset);
    q = tags.query(at);
    tag = q > 0 ? tags.add(at, q, &at) : nullptr;
  }

  // A tag found from the end through its footer, before the ID3v1 tag if there is one.
  const off_t footer = size - 10 - (has_v1 ? 128 : 0);
  if (footer >= 0 && (q = tags.query(footer)) < 0 && footer + q >= 0) {
    at = footer + q;
    q = tags.query(at);
    if (q > 0) tags.add(at, q, &next);
  }

  struct id3_tag* merged = tags.merged_;
  tags.merged_ = nullptr;
  return merged;
}
