#include "log/out_buffer.h"

#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

namespace {

char waiting[PIPE_BUF];
std::atomic<size_t> used{0};  // bytes of waiting not yet written
bool on = false;
pthread_t main_thread;
void (*terminate_with)(int) = nullptr;

// Set while the main thread (the one that takes SIGTERM) writes a page, and
// when a SIGTERM has landed then.
volatile sig_atomic_t writing = 0;
volatile sig_atomic_t held = 0;

// The end of the last whole line among the n bytes that wait, or n when
// there is none (a line longer than the page goes out in pieces) or when
// `whole` asks for everything.
size_t lines_end(size_t n, bool whole) {
  if (whole) return n;
  for (size_t i = n; i > 0; --i)
    if (waiting[i - 1] == '\n') return i;
  return n;
}

// Writes the whole lines that wait (everything when `whole`), keeping the
// start of a line whose end is yet to come; the caller holds stdout's lock.
// A SIGTERM held during a write is handed on once the write has returned,
// when what it wrote is known.
void write_lines(bool whole) {
  const size_t n = used.load(std::memory_order_acquire);
  const size_t end = lines_end(n, whole);
  const bool main = pthread_equal(pthread_self(), main_thread) != 0;
  size_t off = 0;
  while (off < end) {
    if (main) writing = 1;
    const ssize_t w = write(STDOUT_FILENO, waiting + off, end - off);
    if (main) writing = 0;
    if (w > 0) off += static_cast<size_t>(w);
    if (held) {
      memmove(waiting, waiting + off, n - off);
      used.store(n - off, std::memory_order_release);
      held = 0;
      terminate_with(SIGTERM);
    }
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      off = end;  // an output that takes nothing more loses the lines, as with stdio
      break;
    }
  }
  memmove(waiting, waiting + off, n - off);
  used.store(n - off, std::memory_order_release);
}

// The stream's write: appends to the page, writing its whole lines whenever
// it is full.
ssize_t gather(void*, const char* buf, size_t size) {
  size_t done = 0;
  while (done < size) {
    const size_t u = used.load(std::memory_order_relaxed);
    if (u == sizeof waiting) {
      write_lines(false);
      continue;
    }
    const size_t n = size - done < sizeof waiting - u ? size - done : sizeof waiting - u;
    memcpy(waiting + u, buf + done, n);
    used.store(u + n, std::memory_order_release);
    done += n;
  }
  return static_cast<ssize_t>(size);
}

void flush_at_exit() {
  if (!on) return;
  flockfile(stdout);
  write_lines(true);
  funlockfile(stdout);
}

}  // namespace

bool out_buffer_start(void (*terminate)(int)) {
  if (on || terminate == nullptr || isatty(STDOUT_FILENO)) return false;
  cookie_io_functions_t io;
  memset(&io, 0, sizeof io);
  io.write = gather;
  FILE* f = fopencookie(nullptr, "w", io);
  // Unbuffered: stdio hands every text over at once, and nothing of it
  // waits where the termination handler cannot see it.
  if (f == nullptr || setvbuf(f, nullptr, _IONBF, 0) != 0) {
    if (f != nullptr) fclose(f);
    return false;
  }
  terminate_with = terminate;
  main_thread = pthread_self();
  stdout = f;
  on = true;
  atexit(flush_at_exit);
  return true;
}

void out_flush() {
  if (!on) return;
  flockfile(stdout);
  if (used.load(std::memory_order_acquire) > 0) write_lines(false);
  funlockfile(stdout);
}

bool out_hold_signal(int sig) {
  if (sig != SIGTERM || !writing || held) return false;
  held = 1;
  return true;
}

void out_write_waiting() {
  // The start of a line still being printed is left out, as a line-buffered
  // stream leaves it: the termination line then starts a line of its own.
  size_t n = used.load(std::memory_order_acquire);
  while (n > 0 && waiting[n - 1] != '\n') --n;
  size_t off = 0;
  while (off < n) {
    const ssize_t w = write(STDOUT_FILENO, waiting + off, n - off);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return;
    off += static_cast<size_t>(w);
  }
}
