#include "platform/regular_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

int open_regular(const char* path) {
  // O_NONBLOCK makes the open of a FIFO return at once; O_NOCTTY keeps a
  // terminal device from becoming ours before it is refused.
  const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return -1;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    errno = EINVAL;
    return -1;
  }
  const int flags = fcntl(fd, F_GETFL);
  if (flags >= 0) (void)fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  return fd;
}

FILE* fopen_regular(const char* path) {
  const int fd = open_regular(path);
  if (fd < 0) return nullptr;
  FILE* f = fdopen(fd, "r");
  if (f == nullptr) {
    const int saved = errno;
    close(fd);
    errno = saved;
  }
  return f;
}

off_t next_data(FILE* f, off_t from, off_t size) {
  const int fd = fileno(f);
  // SEEK_DATA moves the descriptor; stdio keeps its own idea of where the
  // descriptor is, so it is put back before anyone reads.
  const off_t kept = lseek(fd, 0, SEEK_CUR);
  if (kept < 0) return from;
  const off_t data = next_data(fd, from, size);
  if (lseek(fd, kept, SEEK_SET) != kept) return from;
  return data;
}

off_t next_data(int fd, off_t from, off_t size) {
  const off_t data = lseek(fd, from, SEEK_DATA);
  if (data >= from) return data;
  return data < 0 && errno == ENXIO ? (size > from ? size : from) : from;
}
