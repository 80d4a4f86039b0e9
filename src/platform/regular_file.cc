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
