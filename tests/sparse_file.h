// Test helper: files whose unwritten bytes are a hole, and the same files
// with those bytes written out as zeros, for readers that must not tell the
// two apart; and the count of bytes this process has read, to see that a
// hole was stepped over rather than read.
#ifndef MEDIAWALK_TESTS_SPARSE_FILE_H_
#define MEDIAWALK_TESTS_SPARSE_FILE_H_

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

using Pieces = std::vector<std::pair<off_t, std::vector<uint8_t>>>;

// A file of `size` bytes holding `pieces` at their offsets. Sparse: the rest
// is never written. Dense: it is written as zeros. False on any failure.
inline bool write_pieces(const std::string& path, off_t size, const Pieces& pieces, bool dense) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = ftruncate(fd, size) == 0;
  if (dense) {
    static const uint8_t kZeros[1 << 16] = {};
    for (off_t at = 0; ok && at < size;) {
      const size_t n = size - at < off_t(sizeof kZeros) ? size_t(size - at) : sizeof kZeros;
      ok = pwrite(fd, kZeros, n, at) == ssize_t(n);
      at += off_t(n);
    }
  }
  for (const auto& piece : pieces)
    ok = ok && pwrite(fd, piece.second.data(), piece.second.size(), piece.first) == ssize_t(piece.second.size());
  return close(fd) == 0 && ok;
}

// Bytes this process has read through read(2) and its kin so far ("rchar"),
// or -1 when the kernel does not tell.
inline long long bytes_read_so_far() {
  FILE* f = fopen("/proc/self/io", "r");
  if (f == nullptr) return -1;
  long long n = -1;
  char line[128];
  while (fgets(line, sizeof line, f) != nullptr)
    if (sscanf(line, "rchar: %lld", &n) == 1) break;
  fclose(f);
  return n;
}

#endif  // MEDIAWALK_TESTS_SPARSE_FILE_H_
