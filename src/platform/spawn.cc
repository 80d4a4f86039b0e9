#include "platform/spawn.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "platform/holders.h"

extern char** environ;

namespace {

struct FileActions : NoCopy {
  posix_spawn_file_actions_t actions;
  bool ok;
  FileActions() : ok(posix_spawn_file_actions_init(&actions) == 0) {}
  ~FileActions() {
    if (ok) posix_spawn_file_actions_destroy(&actions);
  }
};

struct SpawnAttr : NoCopy {
  posix_spawnattr_t attr;
  bool ok;
  SpawnAttr() : ok(posix_spawnattr_init(&attr) == 0) {}
  ~SpawnAttr() {
    if (ok) posix_spawnattr_destroy(&attr);
  }
};

// Where a program was found on PATH. The detector is started once per MP3
// file, and looking it up again each time walks every PATH folder with
// execve (all of them, when it is not installed), so the answer is kept for
// as long as PATH reads the same. A PATH with a relative folder depends on
// the working folder, and is searched every time by posix_spawnp.
struct Lookup {
  std::string program;
  std::string path_env;
  bool has_path_env = false;
  bool cacheable = false;
  bool found = false;
  std::string file;  // the absolute path of the program, when found
};

Lookup last_lookup;

// What execvp would run: the first regular, executable file of that name in
// the PATH folders (or confstr's default when PATH is unset).
void look_up(const char* program, Lookup* out) {
  const char* env = getenv("PATH");
  out->program = program;
  out->has_path_env = env != nullptr;
  out->path_env = env ? env : "";
  out->found = false;
  out->file.clear();
  std::string dirs = out->path_env;
  if (env == nullptr) {
    char buf[256];
    const size_t n = confstr(_CS_PATH, buf, sizeof buf);
    dirs = n > 0 && n <= sizeof buf ? buf : "/bin:/usr/bin";
  }
  out->cacheable = true;
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    const std::string dir = dirs.substr(start, end - start);
    start = end + 1;
    if (dir.empty() || dir[0] != '/') {
      out->cacheable = false;
      return;
    }
    const std::string candidate = dir + "/" + program;
    struct stat st;
    if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(candidate.c_str(), X_OK) == 0) {
      out->found = true;
      out->file = candidate;
      return;
    }
  }
}

// The lookup of program under the current PATH, found or not; null when
// posix_spawnp must search (a name with a "/", or a relative PATH folder).
const Lookup* resolve(const char* program) {
  if (strchr(program, '/') != nullptr) return nullptr;
  const char* env = getenv("PATH");
  const bool same = last_lookup.program == program && last_lookup.has_path_env == (env != nullptr) &&
                    last_lookup.path_env == (env ? env : "");
  if (!same) look_up(program, &last_lookup);
  return last_lookup.cacheable ? &last_lookup : nullptr;
}

// The process group of the running helper, 0 when none runs.
volatile sig_atomic_t running_group = 0;

timespec after_ms(int ms) {
  if (ms < 0) ms = 0;
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  t.tv_sec += ms / 1000;
  t.tv_nsec += long(ms % 1000) * 1000000L;
  if (t.tv_nsec >= 1000000000L) {
    ++t.tv_sec;
    t.tv_nsec -= 1000000000L;
  }
  return t;
}

// Milliseconds left until deadline, rounded up; 0 once it has passed.
int ms_left(const timespec& deadline) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const long long ns = (long long)(deadline.tv_sec - now.tv_sec) * 1000000000LL +
                       (deadline.tv_nsec - now.tv_nsec);
  return ns > 0 ? int((ns + 999999) / 1000000) : 0;
}

// Reads until max bytes, end of file, an error or the deadline.
void read_up_to(int fd, char* buf, size_t max, const timespec& deadline) {
  size_t got = 0;
  while (got < max) {
    pollfd p = {fd, POLLIN, 0};
    const int ready = poll(&p, 1, ms_left(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) break;
    const ssize_t n = read(fd, buf + got, max - got);
    if (n > 0) {
      got += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      break;
    }
  }
}

// Waits until the child has exited, leaving it unreaped so that its process
// group stays reserved, or until the deadline. A helper exits within a few
// milliseconds of closing its output, so the pauses start short.
void wait_for_exit(pid_t pid, const timespec& deadline) {
  long pause_ns = 50000;
  for (;;) {
    siginfo_t info;
    memset(&info, 0, sizeof info);
    const int rc = waitid(P_PID, id_t(pid), &info, WEXITED | WNOHANG | WNOWAIT);
    if (rc != 0 && errno == EINTR) continue;
    if (rc != 0 || info.si_pid == pid) return;
    const int left = ms_left(deadline);
    if (left == 0) return;
    if (pause_ns > long(left) * 1000000L) pause_ns = long(left) * 1000000L;
    const timespec pause = {0, pause_ns};
    nanosleep(&pause, nullptr);
    if (pause_ns < 20000000L) pause_ns *= 2;
  }
}

}  // namespace

void kill_running_helper() {
  const pid_t group = running_group;
  if (group > 0) kill(-group, SIGKILL);
}

bool spawn_read_output(const char* program, const char* arg, char* out, size_t cap,
                       size_t max_read, int time_limit_ms) {
  if (cap == 0) return false;
  memset(out, 0, cap);
  if (max_read >= cap) max_read = cap - 1;
  const Lookup* found = resolve(program);
  if (found != nullptr && !found->found) return false;  // not installed: the empty answer

  // Close-on-exec keeps both ends out of the child except as its stdout, and
  // out of any other child this process starts meanwhile.
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  Fd read_end(ends[0]);
  Fd write_end(ends[1]);

  FileActions fa;
  SpawnAttr sa;
  if (!fa.ok || !sa.ok) return false;
  if (posix_spawn_file_actions_addopen(&fa.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0) != 0 ||
      posix_spawn_file_actions_adddup2(&fa.actions, write_end.fd, STDOUT_FILENO) != 0) {
    return false;
  }
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
  // Descriptors this process inherited without close-on-exec (from whoever
  // started the scan) are none of the detector's business.
  if (posix_spawn_file_actions_addclosefrom_np(&fa.actions, STDERR_FILENO + 1) != 0) return false;
#endif
  // Whatever this process does with SIGPIPE, the child must die of it once we
  // stop reading, or a chatty child would spin on EPIPE. Its own process group
  // lets everything it starts be killed with it.
  sigset_t defaults, none;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigemptyset(&none);
  if (posix_spawnattr_setsigdefault(&sa.attr, &defaults) != 0 ||
      posix_spawnattr_setsigmask(&sa.attr, &none) != 0 || posix_spawnattr_setpgroup(&sa.attr, 0) != 0 ||
      posix_spawnattr_setflags(&sa.attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK |
                                             POSIX_SPAWN_SETPGROUP) != 0) {
    return false;
  }

  // SIGTERM waits until the group is on record, so that the termination
  // handler finds every child it has to kill.
  sigset_t term, old;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, &old);
  const timespec deadline = after_ms(time_limit_ms);
  char* argv[] = {const_cast<char*>(program), const_cast<char*>(arg), nullptr};
  pid_t pid;
  const int rc = found != nullptr
                     ? posix_spawn(&pid, found->file.c_str(), &fa.actions, &sa.attr, argv, environ)
                     : posix_spawnp(&pid, program, &fa.actions, &sa.attr, argv, environ);
  if (rc == 0) running_group = pid;
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  if (rc != 0) return false;
  close(write_end.release());  // so that the child's exit is seen as end of file

  read_up_to(read_end.fd, out, max_read, deadline);
  close(read_end.release());
  wait_for_exit(pid, deadline);
  // The child, if the time ran out, and whatever it left running.
  kill(-pid, SIGKILL);
  running_group = 0;
  int status;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return true;
}
