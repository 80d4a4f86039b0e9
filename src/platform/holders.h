// RAII holders for the C resources the scanner uses, so that no routine has
// to close things by hand on every exit. The termination handler does not run
// destructors: whatever must happen on a signal is done there explicitly.
#ifndef MEDIAWALK_PLATFORM_HOLDERS_H_
#define MEDIAWALK_PLATFORM_HOLDERS_H_

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>

struct NoCopy {
  NoCopy() = default;
  NoCopy(const NoCopy&) = delete;
  void operator=(const NoCopy&) = delete;
};

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};
struct DirCloser {
  void operator()(DIR* d) const { closedir(d); }
};
struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};

using UniqueFile = std::unique_ptr<FILE, FileCloser>;
using UniqueDir = std::unique_ptr<DIR, DirCloser>;
using UniqueChars = std::unique_ptr<char, FreeDeleter>;

// A descriptor closed on scope exit; -1 means none.
struct Fd : NoCopy {
  int fd;
  explicit Fd(int f = -1) : fd(f) {}
  ~Fd() {
    if (fd >= 0) close(fd);
  }
  int release() {
    int f = fd;
    fd = -1;
    return f;
  }
};

#endif  // MEDIAWALK_PLATFORM_HOLDERS_H_
