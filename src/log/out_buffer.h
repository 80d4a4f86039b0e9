// Standard output gathered a page at a time.
//
// The scan prints a line for every file it cannot read: tens of thousands on
// a large share. Written one by one, each line costs a system call and wakes
// whatever reads the pipe. When standard output is not a terminal, the lines
// are gathered in one page (PIPE_BUF bytes, which a pipe takes whole or not
// at all) and written when it is full, at every phase line (out_flush),
// before a helper program that shares the output runs, before a message to
// standard error, and at exit. The termination handler writes what waits
// before its own line, so the output holds the same bytes in the same order
// as when every line was written at once; a terminal still gets every line
// at once.
#ifndef MEDIAWALK_LOG_OUT_BUFFER_H_
#define MEDIAWALK_LOG_OUT_BUFFER_H_

// Replaces stdout by the gathering stream when standard output is not a
// terminal, and returns whether it did. `terminate` is the termination
// handler: a SIGTERM taken while a page is being written is held until the
// write returns, and then handed to it.
bool out_buffer_start(void (*terminate)(int));

// Writes what waits. Any thread; nothing when gathering is off.
void out_flush();

// For the termination handler, async-signal-safe. out_hold_signal tells
// whether it is to return at once, the signal held (a SIGTERM that lands
// while a page is written, the first time). out_write_waiting writes what
// waits and has not been written yet.
bool out_hold_signal(int sig);
void out_write_waiting();

#endif  // MEDIAWALK_LOG_OUT_BUFFER_H_
