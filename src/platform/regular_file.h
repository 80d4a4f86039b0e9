// Opening a file of the share for reading.
//
// Between the walk's status query and a reader's open, anyone who may write
// to the share can put a FIFO, a device or a link where a regular file was
// listed (and a FIFO named like the folder marker needs no race at all). A
// FIFO without a writer would hold the scan in open() for good, and a device
// may be read without end. So a share file is opened without blocking and
// without following a link in its last component, and kept only when it
// turns out to be a regular file; for regular files nothing changes.
//
// A folder of the share, or one above it, may likewise be swapped for a link
// at any time, and a path resolved again would then lead out of the share.
// So the share root is opened once, every share folder is reached from it one
// component at a time without following a link, and a file named inside the
// folder being scanned is opened through that folder's descriptor. Paths
// outside the share root (none in a scan) are opened as before.
#ifndef MEDIAWALK_PLATFORM_REGULAR_FILE_H_
#define MEDIAWALK_PLATFORM_REGULAR_FILE_H_

#include <stdio.h>
#include <sys/stat.h>

// A read-only, close-on-exec descriptor of the regular file at path (opened
// with O_NONBLOCK, which a regular file's reads ignore); -1 with errno set
// when it cannot be opened or is anything but a regular file (errno EINVAL
// then, or ELOOP for a link). A path inside the share root never passes
// through a link. When st is given, *st receives the status from the query
// that found the file regular, so that a reader needs no second query for its
// size (it is left untouched on failure).
int open_regular(const char* path, struct stat* st = nullptr);

// The same for entry `name` of the folder open as dir_fd (AT_FDCWD: name is a
// path, resolved as given but for its last component).
int open_regular_at(int dir_fd, const char* name, struct stat* st = nullptr);

// Opens the folders of `rest` ("a/b/", "a//b" alike) one after another from
// the folder open as root_fd, none through a link and none read, only passed
// through (O_PATH). A new descriptor of the last (of root_fd itself when rest
// names none), or -1; "." and ".." are refused. Safe in any thread.
int open_path_below(int root_fd, const char* rest);

// Opens the share root `path` as a folder, following any link in it (the
// root is the administrator's setting), and keeps it as the root of the share
// when path ends in "/". Returns a descriptor of the folder for the caller to
// close, or -1; the share then has no root until the next call.
int open_share_root(const char* path);

// Opens a folder of the share (path ending in "/") without following a link
// in any component below the root; a path outside the share root is opened
// as given. Returns a descriptor for the caller to close, or -1.
int open_share_folder(const char* path);

// The folder being scanned: files named inside folder `path` (ending in "/",
// the name joined to it with or without one more "/") are opened through
// dir_fd, which the caller keeps open until it sets another folder or none
// (nullptr).
void set_scan_folder(const char* path, int dir_fd);

// Forgets the share root and the scanned folder, as at process start.
void forget_share();

// The same as a stdio stream for reading, with the file's status in *st
// when st is given; nullptr on failure.
FILE* fopen_regular(const char* path, struct stat* st = nullptr);

// A sparse file of terabytes costs its writer no disk, and the readers that
// search a file to its end would read every zero of it. They ask this where
// the next bytes that may be data begin: the first offset at or after from
// that is not in a hole, size when a hole runs to the end, and from itself
// when the file system cannot tell. The stream's position is left as it was.
off_t next_data(FILE* f, off_t from, off_t size);

// The same for a descriptor read with lseek and read; its offset is moved.
off_t next_data(int fd, off_t from, off_t size);

#endif  // MEDIAWALK_PLATFORM_REGULAR_FILE_H_
