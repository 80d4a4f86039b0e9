// Sends what this process writes to descriptor 1 or 2 into a temporary file, to compare it exactly.
#ifndef MEDIAWALK_TESTS_FD_CAPTURE_H_
#define MEDIAWALK_TESTS_FD_CAPTURE_H_

#include <stdio.h>
#include <unistd.h>

#include <string>

class FdCapture {
 public:
  explicit FdCapture(int fd) : fd_(fd), file_(tmpfile()) {
    fflush(nullptr);
    saved_ = dup(fd_);
    dup2(fileno(file_), fd_);
  }
  ~FdCapture() {
    restore();
    fclose(file_);
  }
  FdCapture(const FdCapture&) = delete;
  void operator=(const FdCapture&) = delete;

  // Ends the capture and returns everything written meanwhile.
  std::string text() {
    restore();
    std::string out;
    char chunk[4096];
    rewind(file_);
    for (size_t n; (n = fread(chunk, 1, sizeof chunk, file_)) > 0;) out.append(chunk, n);
    return out;
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    fflush(nullptr);
    dup2(saved_, fd_);
    close(saved_);
    saved_ = -1;
  }
  int fd_;
  FILE* file_;
  int saved_ = -1;
};

#endif  // MEDIAWALK_TESTS_FD_CAPTURE_H_
