// Scaffolding shared by the fuzz targets and the regression replay in the
// unit tests: a reusable temporary input file, a scratch folder, and the
// checks every target makes after its routine returned.
#ifndef MEDIAWALK_FUZZ_BENCH_H_
#define MEDIAWALK_FUZZ_BENCH_H_

#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace fuzz {

// printf into a std::string: the message a failed check hands back.
inline std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
inline std::string format(const char* fmt, ...) {
  char buf[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  return buf;
}

// A private folder under $TMPDIR (or /tmp), removed with everything in it.
class ScratchDir {
 public:
  ScratchDir() {
    const char* tmp = getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/mwfuzzXXXXXX";
    if (mkdtemp(&tmpl[0]) == nullptr) {
      perror("mkdtemp");
      abort();
    }
    path_ = tmpl + "/";
  }
  ~ScratchDir() {
    // Only files are made inside; a flat removal is enough and spawns nothing.
    for (const std::string& f : files_) unlink(f.c_str());
    rmdir(path_.c_str());
  }
  ScratchDir(const ScratchDir&) = delete;
  void operator=(const ScratchDir&) = delete;

  // path of name inside the folder, remembered for removal.
  std::string file(const std::string& name) {
    files_.push_back(path_ + name);
    return files_.back();
  }
  const std::string& path() const { return path_; }  // ends in "/"

 private:
  std::string path_;
  std::vector<std::string> files_;
};

// One file rewritten in place for every input: pwrite and ftruncate on a
// descriptor kept open, so the hot path makes no file of its own.
class InputFile {
 public:
  InputFile(ScratchDir* dir, const std::string& name) : path_(dir->file(name)) {
    fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd_ < 0) {
      perror(path_.c_str());
      abort();
    }
  }
  ~InputFile() { close(fd_); }
  InputFile(const InputFile&) = delete;
  void operator=(const InputFile&) = delete;

  void write(const uint8_t* data, size_t size) {
    if (ftruncate(fd_, 0) != 0 || (size > 0 && pwrite(fd_, data, size, 0) != static_cast<ssize_t>(size))) {
      perror(path_.c_str());
      abort();
    }
  }
  const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
  int fd_ = -1;
};

// The lowest free descriptor: when it moves between two calls, the routine in
// between kept a descriptor (or a FILE) open.
inline int lowest_free_fd() {
  const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) close(fd);
  return fd;
}

// The process's peak resident size so far, in KiB: a routine that made it
// jump held far more memory than its input explains.
inline long peak_rss_kib() {
  rusage u = {};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

// True when text[0..cap) holds its terminator.
inline bool terminated(const char* text, size_t cap) { return memchr(text, '\0', cap) != nullptr; }

// The readers print a line for nearly every odd input; at hundreds of
// thousands of inputs a second that is only noise.
inline void silence_stdout() {
  fflush(stdout);
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (null >= 0) {
    dup2(null, 1);
    close(null);
  }
}

}  // namespace fuzz

#endif  // MEDIAWALK_FUZZ_BENCH_H_
