// Reading a byte range of known place and size straight into the caller's
// buffer: one pread per range (more only when the kernel hands back less),
// no stream buffer refilled around it and no seek to get there.
#ifndef MEDIAWALK_METADATA_READ_RANGE_H_
#define MEDIAWALK_METADATA_READ_RANGE_H_

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "platform/holders.h"

// Calls read(buf, len, pos), a pread of some source, until len bytes at pos
// are in buf and returns how many arrived: fewer than len at the end of the
// source, or when a read fails (errno is then kept and *failed set, when
// given). A negative pos reads nothing and fails.
template <class Read>
size_t read_fully(Read read, off_t pos, uint8_t* buf, size_t len, bool* failed) {
  size_t got = 0;
  while (got < len) {
    const ssize_t n = read(buf + got, len - got, pos + static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n < 0 && failed != nullptr) *failed = true;
      break;
    }
    got += size_t(n);
  }
  return got;
}

// read_fully from the file open on fd.
inline size_t read_range(int fd, off_t pos, uint8_t* buf, size_t len, bool* failed = nullptr) {
  return read_fully([fd](void* out, size_t n, off_t at) { return ::pread(fd, out, n, at); }, pos, buf, len,
                    failed);
}

// One open media file as a reader sees it: the descriptor, the size its
// open found, and its first kHead bytes. The MP3 tag and audio readers and
// the image readers do most of their reading there (a tag's header and
// frames, the first audio blocks, an image's headers and segments, and for a
// small file its last bytes too), so those bytes are read once, by the first
// read that falls among them, and handed out from memory after that: an MP3
// of 4 KiB costs each of its readers one read where it took three or four.
// A read further on goes to the file.
class FileBytes : NoCopy {
 public:
  static constexpr size_t kHead = 4096;

  FileBytes(int fd, off_t size) : fd_(fd), size_(size) {}
  int fd() const { return fd_; }
  off_t size() const { return size_; }

  // As pread(2) on the file: up to n bytes at pos, fewer only at the end of
  // the file (where the head's read or the open found it) or when the file
  // cannot be read; -1 with errno when nothing could be read.
  ssize_t pread(void* out, size_t n, off_t pos) {
    if (pos < 0 || n == 0 || (pos >= off_t(kHead) && !head_read_)) return ::pread(fd_, out, n, pos);
    if (!head_read_) {
      bool failed = false;
      // A file the open found shorter is read to that size, so that no
      // second read is spent on finding its end.
      const size_t want = size_ > 0 && size_ < off_t(kHead) ? size_t(size_) : kHead;
      head_len_ = read_range(fd_, 0, head_, want, &failed);
      head_errno_ = failed ? errno : 0;
      head_read_ = true;
    }
    size_t done = 0;
    if (pos < off_t(head_len_)) {
      done = n < head_len_ - size_t(pos) ? n : head_len_ - size_t(pos);
      memcpy(out, head_ + pos, done);
    }
    // The file ends where the head does when its read came back short, or
    // when the open found it no longer; otherwise the file is asked.
    if (done == n || (head_errno_ == 0 && (head_len_ < kHead || size_ <= off_t(kHead)))) return ssize_t(done);
    const ssize_t more = ::pread(fd_, static_cast<uint8_t*>(out) + done, n - done, pos + off_t(done));
    if (more < 0) return done > 0 ? ssize_t(done) : -1;
    return ssize_t(done) + more;
  }

 private:
  int fd_;
  off_t size_;
  uint8_t head_[kHead];
  size_t head_len_ = 0;
  int head_errno_ = 0;
  bool head_read_ = false;
};

// read_fully from a FileBytes.
inline size_t read_range(FileBytes* file, off_t pos, uint8_t* buf, size_t len, bool* failed = nullptr) {
  return read_fully([file](void* out, size_t n, off_t at) { return file->pread(out, n, at); }, pos, buf, len,
                    failed);
}

#endif  // MEDIAWALK_METADATA_READ_RANGE_H_
