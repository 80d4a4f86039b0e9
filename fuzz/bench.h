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

#include <atomic>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define MEDIAWALK_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MEDIAWALK_ASAN 1
#endif
#endif
#ifdef MEDIAWALK_ASAN
// ASan's allocator interface (not every compiler ships its header).
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void*, size_t),
                                                        void (*)(const volatile void*));
extern "C" size_t __sanitizer_get_allocated_size(const volatile void* p);
#endif

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

// How much more memory the process needed at its peak while a routine ran,
// in KiB. Normally the growth of the peak resident size. Under ASan that
// size also holds the freed blocks ASan keeps aside to catch late uses, so a
// routine that allocates and frees a lot looks huge; there the peak of the
// bytes actually allocated is watched instead, through ASan's hooks.
class PeakGrowth {
 public:
  PeakGrowth() {
#ifdef MEDIAWALK_ASAN
    static const bool hooked = __sanitizer_install_malloc_and_free_hooks(on_malloc, on_free) != 0;
    (void)hooked;
    start_ = live().load();
    peak().store(start_);
#else
    start_ = peak_rss_kib();
#endif
  }
  long kib() const {
#ifdef MEDIAWALK_ASAN
    return (peak().load() - start_) / 1024;
#else
    return peak_rss_kib() - start_;
#endif
  }

 private:
#ifdef MEDIAWALK_ASAN
  static std::atomic<long>& live() {
    static std::atomic<long> bytes{0};
    return bytes;
  }
  static std::atomic<long>& peak() {
    static std::atomic<long> bytes{0};
    return bytes;
  }
  static void on_malloc(const volatile void*, size_t size) {
    const long now = live().fetch_add(long(size)) + long(size);
    long seen = peak().load();
    while (now > seen && !peak().compare_exchange_weak(seen, now)) {
    }
  }
  static void on_free(const volatile void* p) {
    live().fetch_sub(long(__sanitizer_get_allocated_size(p)));
  }
#endif
  long start_;
};

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
