// Opening a file of the share for reading.
//
// Between the walk's status query and a reader's open, anyone who may write
// to the share can put a FIFO, a device or a link where a regular file was
// listed (and a FIFO named like the folder marker needs no race at all). A
// FIFO without a writer would hold the scan in open() for good, and a device
// may be read without end. So a share file is opened without blocking and
// without following a link in its last component, and kept only when it
// turns out to be a regular file; for regular files nothing changes.
#ifndef MEDIAWALK_PLATFORM_REGULAR_FILE_H_
#define MEDIAWALK_PLATFORM_REGULAR_FILE_H_

#include <stdio.h>

// A read-only, close-on-exec descriptor of the regular file at path, in
// blocking mode; -1 with errno set when it cannot be opened or is anything
// but a regular file (errno EINVAL then, or ELOOP for a link).
int open_regular(const char* path);

// The same as a stdio stream for reading; nullptr on failure.
FILE* fopen_regular(const char* path);

// A sparse file of terabytes costs its writer no disk, and the readers that
// search a file to its end would read every zero of it. They ask this where
// the next bytes that may be data begin: the first offset at or after from
// that is not in a hole, size when a hole runs to the end, and from itself
// when the file system cannot tell. The stream's position is left as it was.
off_t next_data(FILE* f, off_t from, off_t size);

// The same for a descriptor read with lseek and read; its offset is moved.
off_t next_data(int fd, off_t from, off_t size);

#endif  // MEDIAWALK_PLATFORM_REGULAR_FILE_H_
