// Runs a helper program without a shell and reads the start of its output.
#ifndef MEDIAWALK_PLATFORM_SPAWN_H_
#define MEDIAWALK_PLATFORM_SPAWN_H_

#include <stddef.h>

// Starts program, looked up on PATH, with arg as its one argument. No shell
// sees either, so no byte of arg is interpreted. The child's standard input is
// /dev/null and its standard output a pipe, of which at most max_read bytes
// are read into out[cap]; out is zeroed first, and max_read must be below cap
// so that the text stays terminated. The pipe is then closed (a child that
// goes on writing gets SIGPIPE) and the child reaped.
// Returns true when the program ran and exited with status 0. Otherwise out is
// left all zero: a missing program or one that failed gives the empty answer.
bool spawn_read_output(const char* program, const char* arg, char* out, size_t cap,
                       size_t max_read);

#endif  // MEDIAWALK_PLATFORM_SPAWN_H_
