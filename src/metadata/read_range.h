// Reading a byte range of known place and size straight into the caller's
// buffer: one pread per range (more only when the kernel hands back less),
// no stream buffer refilled around it and no seek to get there.
#ifndef MEDIAWALK_METADATA_READ_RANGE_H_
#define MEDIAWALK_METADATA_READ_RANGE_H_

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <unistd.h>

// Reads up to len bytes at pos into buf and returns how many arrived: fewer
// than len at the end of the file, or when a read fails (errno is then kept
// and *failed set, when given). A negative pos reads nothing and fails.
inline size_t read_range(int fd, off_t pos, uint8_t* buf, size_t len, bool* failed = nullptr) {
  size_t got = 0;
  while (got < len) {
    const ssize_t n = pread(fd, buf + got, len - got, pos + static_cast<off_t>(got));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n < 0 && failed != nullptr) *failed = true;
      break;
    }
    got += size_t(n);
  }
  return got;
}

#endif  // MEDIAWALK_METADATA_READ_RANGE_H_
