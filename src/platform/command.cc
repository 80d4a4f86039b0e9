#include "platform/command.h"

#include <errno.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/holders.h"

extern char** environ;

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

int run_capture(char* out, size_t size, const char* fmt, ...) {
  char cmd[1024];  // up to 1,023 bytes of command line
  va_list ap;
  va_start(ap, fmt);
  if (vsnprintf(cmd, sizeof cmd, fmt, ap) < 0) cmd[0] = '\0';
  va_end(ap);

  UniquePipe pipe(popen(cmd, "r"));
  if (!pipe) {
    if (size > 0) out[0] = '\0';
    return -1;
  }
  if (size == 0) return 0;
  const size_t n = fread(out, 1, size - 1, pipe.get());
  out[n] = '\0';
  pipe.reset();  // waits for the command; output past size-1 bytes is dropped with the pipe
  const size_t len = strlen(out);
  if (len > 0 && out[len - 1] == '\n') out[len - 1] = '\0';
  return 0;
}

int run_command(const char* fmt, ...) {
  char cmd[1024];
  va_list ap;
  va_start(ap, fmt);
  if (vsnprintf(cmd, sizeof cmd, fmt, ap) < 0) cmd[0] = '\0';
  va_end(ap);
  return system(cmd);
}

int run_program(const char* const argv[], int out_fd) {
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0) return -1;
  pid_t pid;
  int rc = out_fd >= 0 ? posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO) : 0;
  if (rc == 0) rc = posix_spawnp(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return -1;
  int status;
  pid_t w;
  do {
    w = waitpid(pid, &status, 0);
  } while (w < 0 && errno == EINTR);
  return w == pid ? status : -1;
}

char* trim_leading(char* text) {
  if (text == nullptr) return nullptr;
  while (is_blank(*text)) ++text;
  return text;
}

char* trim_trailing(char* text) {
  if (text == nullptr) return nullptr;
  for (size_t len = strlen(text); len > 0 && is_blank(text[len - 1]); --len) text[len - 1] = '\0';
  return text;
}
