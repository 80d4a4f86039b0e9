#include "platform/command.h"

#include <errno.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

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
