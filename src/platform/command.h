// Runs the housekeeping programs without a shell.
#ifndef MEDIAWALK_PLATFORM_COMMAND_H_
#define MEDIAWALK_PLATFORM_COMMAND_H_

// Runs argv[0], looked up on PATH, with the arguments argv[1..] up to a null,
// without a shell: nothing in them is interpreted. Its standard output goes
// to out_fd, or stays this process's when out_fd is -1. Waits for it and
// returns its wait status, or -1 when it could not be started.
int run_program(const char* const argv[], int out_fd);

#endif  // MEDIAWALK_PLATFORM_COMMAND_H_
