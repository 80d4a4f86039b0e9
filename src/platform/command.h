// Command runners, with and without a shell, and the whitespace trimmers
// used on their output.
#ifndef MEDIAWALK_PLATFORM_COMMAND_H_
#define MEDIAWALK_PLATFORM_COMMAND_H_

#include <stddef.h>

// Formats a command line (at most 1,023 bytes; longer ones are cut), runs it
// through the shell and captures its output: at most size-1 bytes go into
// out, zero-terminated, with one trailing newline removed. Returns 0, or -1
// with out set to "" when the pipe cannot be opened. Nothing is written to
// out when size is 0.
int run_capture(char* out, size_t size, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// Formats a command line as run_capture does and runs it through the shell.
// Returns what system() returns: the shell's wait status, or -1.
int run_command(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Runs argv[0], looked up on PATH, with the arguments argv[1..] up to a null,
// without a shell: nothing in them is interpreted. Its standard output goes
// to out_fd, or stays this process's when out_fd is -1. Waits for it and
// returns its wait status, or -1 when it could not be started.
int run_program(const char* const argv[], int out_fd);

// Returns the first character of text that is not a space, tab, newline or
// carriage return (the terminator when there is none); null for null.
char* trim_leading(char* text);

// Overwrites trailing spaces, tabs, newlines and carriage returns of text
// with zero bytes, in place. Returns text; null for null.
char* trim_trailing(char* text);

#endif  // MEDIAWALK_PLATFORM_COMMAND_H_
