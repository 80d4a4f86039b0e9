#include "platform/regular_file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// A folder passed through on the way down is only searched, never read, so
// it needs no read permission, as in a path resolved by the kernel.
constexpr int kPassFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct Folder {
  const char* path = nullptr;  // ends in "/"; null when none is set
  size_t len = 0;
  int fd = -1;
};

Folder share_root;  // path and fd owned here
Folder scan_folder;  // both owned by the caller
// The folder of the share path opened last, reached from the root without a
// link: the walk opens the subfolders of one folder one after another, and the
// playlist pass the playlists of one folder, each then with a single call.
// Its path after the root's, and its descriptor, owned here.
char parent_rest[PATH_MAX];
int parent_fd = -1;

// When path lies inside folder f, the rest of it after f's path; else null.
const char* inside(const Folder& f, const char* path) {
  if (f.path == nullptr || strncmp(path, f.path, f.len) != 0) return nullptr;
  return path + f.len;
}

// Copies the path component of len bytes at p into name. False, with errno
// set, for one too long, "." or "..": nothing the scan stores names those,
// and ".." would climb out of the share.
bool take_name(const char* p, size_t len, char (&name)[NAME_MAX + 1]) {
  if (len > NAME_MAX) {
    errno = ENAMETOOLONG;
    return false;
  }
  memcpy(name, p, len);
  name[len] = '\0';
  if (strcmp(name, ".") != 0 && strcmp(name, "..") != 0) return true;
  errno = EINVAL;
  return false;
}

int open_below_root(const char* rest) { return open_path_below(share_root.fd, rest); }

// Opens path with last_flags (which hold O_NOFOLLOW): inside the scanned
// folder through its descriptor, inside the share from the root, else as given.
int open_share_path(const char* path, int last_flags) {
  const char* rest = inside(scan_folder, path);
  if (rest != nullptr) {
    if (*rest == '/') ++rest;  // the readers' "folder/" + "/" + "name"
    if (*rest != '\0' && strchr(rest, '/') == nullptr) return openat(scan_folder.fd, rest, last_flags);
  }
  rest = inside(share_root, path);
  if (rest == nullptr) return openat(AT_FDCWD, path, last_flags);
  // The last name, and the folders before it.
  size_t end = strlen(rest);
  while (end > 0 && rest[end - 1] == '/') --end;
  size_t start = end;
  while (start > 0 && rest[start - 1] != '/') --start;
  if (end == 0) return fcntl(share_root.fd, F_DUPFD_CLOEXEC, 0);  // the root itself
  char name[NAME_MAX + 1];
  if (!take_name(rest + start, end - start, name)) return -1;
  if (start >= sizeof parent_rest) {
    errno = ENAMETOOLONG;
    return -1;
  }
  if (parent_fd < 0 || strlen(parent_rest) != start || strncmp(parent_rest, rest, start) != 0) {
    if (parent_fd >= 0) close(parent_fd);
    memcpy(parent_rest, rest, start);
    parent_rest[start] = '\0';
    parent_fd = open_below_root(parent_rest);
    if (parent_fd < 0) return -1;
  }
  return openat(parent_fd, name, last_flags);
}

int keep_regular(int fd, struct stat* out) {
  if (fd < 0) return -1;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    errno = EINVAL;
    return -1;
  }
  if (out != nullptr) *out = st;
  return fd;
}

// O_NONBLOCK makes the open of a FIFO return at once; O_NOCTTY keeps a
// terminal device from becoming ours before it is refused. A regular file
// reads the same with O_NONBLOCK as without, so it is left set: clearing it
// cost two system calls for every file the scan opens.
constexpr int kFileFlags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC;

}  // namespace

int open_path_below(int root_fd, const char* rest) {
  int cur = root_fd;
  for (rest += strspn(rest, "/"); *rest != '\0' && cur >= 0; rest += strspn(rest, "/")) {
    const size_t len = strcspn(rest, "/");
    char name[NAME_MAX + 1];
    const int next = take_name(rest, len, name) ? openat(cur, name, kPassFlags) : -1;
    if (cur != root_fd) {
      const int saved = errno;
      close(cur);
      errno = saved;
    }
    cur = next;
    rest += len;
  }
  return cur == root_fd && cur >= 0 ? fcntl(cur, F_DUPFD_CLOEXEC, 0) : cur;
}

int open_regular(const char* path, struct stat* st) { return keep_regular(open_share_path(path, kFileFlags), st); }

int open_regular_at(int dir_fd, const char* name, struct stat* st) {
  return keep_regular(openat(dir_fd, name, kFileFlags), st);
}

int open_share_root(const char* path) {
  forget_share();
  const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const size_t len = strlen(path);
  if (fd < 0 || len == 0 || path[len - 1] != '/') return fd;
  share_root.fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  share_root.path = share_root.fd >= 0 ? strdup(path) : nullptr;
  share_root.len = len;
  if (share_root.path == nullptr) forget_share();
  return fd;
}

int open_share_folder(const char* path) { return open_share_path(path, kFolderFlags); }

void set_scan_folder(const char* path, int dir_fd) {
  const size_t len = path != nullptr ? strlen(path) : 0;
  const bool usable = len > 0 && path[len - 1] == '/' && dir_fd >= 0;
  scan_folder.path = usable ? path : nullptr;
  scan_folder.len = usable ? len : 0;
  scan_folder.fd = usable ? dir_fd : -1;
}

void forget_share() {
  if (parent_fd >= 0) close(parent_fd);
  parent_fd = -1;
  if (share_root.fd >= 0) close(share_root.fd);
  free(const_cast<char*>(share_root.path));
  share_root = Folder();
  scan_folder = Folder();
}

FILE* fopen_regular(const char* path, struct stat* st) {
  const int fd = open_regular(path, st);
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
