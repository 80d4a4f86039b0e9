// Read-ahead of the files the walk is about to open.
//
// On a cold page cache the walk waits for the disk once per file, one request
// at a time, while the disk answers several requests at once much faster. A
// helper thread asks the kernel (posix_fadvise WILLNEED) for the byte ranges
// the readers will read of the next few regular files of the folder being
// scanned, so those reads find their pages in the cache. The helper only
// advises: it reads no file data, and touches neither the database, nor the
// counters, nor anything the run prints. The walk, the readers and the
// statements stay on the main thread in their order, so a file that changes
// between the advice and the read is read as it is then.
#ifndef MEDIAWALK_PLATFORM_READ_AHEAD_H_
#define MEDIAWALK_PLATFORM_READ_AHEAD_H_

#include <string>
#include <vector>

// How many entries the helper keeps ahead of the walk at most.
constexpr int kReadAheadFiles = 8;

// Starts the helper thread, with SIGTERM blocked in it so that the signal is
// always taken by the main thread; it advises only files whose name `wanted`
// accepts. When it cannot start, the calls below do nothing and the run goes
// on unchanged.
void read_ahead_start(bool (*wanted)(const char* name));

// The walk is about to handle entry `index` of `names`, the entries of the
// folder open as folder_fd: the helper is handed the visible names up to
// kReadAheadFiles ahead (and advises those `wanted` accepts that are regular
// files, opened through its own copy of folder_fd without following a link),
// and drops what the walk has passed.
void read_ahead_at(int folder_fd, const std::vector<std::string>& names, size_t index);

// Ends the helper and waits for it. The termination handler needs no call:
// the helper ends with the process.
void read_ahead_stop();

#endif  // MEDIAWALK_PLATFORM_READ_AHEAD_H_
