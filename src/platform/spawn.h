// Runs a helper program without a shell and reads the start of its output.
#ifndef MEDIAWALK_PLATFORM_SPAWN_H_
#define MEDIAWALK_PLATFORM_SPAWN_H_

#include <stddef.h>

// How long a helper may take, from its start until it has exited.
constexpr int kHelperTimeLimitMs = 10000;

// Starts program, looked up on PATH, with arg as its one argument. No shell
// sees either, so no byte of arg is interpreted. The child runs in a process
// group of its own; its standard input is /dev/null and its standard output a
// pipe, of which at most max_read bytes are read into out[cap]; out is zeroed
// first, and max_read must be below cap so that the text stays terminated.
// Reading stops at end of file, after max_read bytes or when time_limit_ms
// have passed since the start; the pipe is then closed (a child that goes on
// writing gets SIGPIPE). Once the child has exited, or the time is up, its
// whole process group is killed and the child reaped, so nothing it started
// outlives the call.
// Returns true when the program was started: out then holds what it printed
// within the time, whatever its exit status or the signal that ended it.
// False, with out all zero, when it could not be started (not installed).
bool spawn_read_output(const char* program, const char* arg, char* out, size_t cap,
                       size_t max_read, int time_limit_ms = kHelperTimeLimitMs);

// Kills the process group of the helper spawn_read_output is running, if
// any. Async-signal-safe, for the termination handler: a scan that is ended
// leaves no helper behind.
void kill_running_helper();

#endif  // MEDIAWALK_PLATFORM_SPAWN_H_
