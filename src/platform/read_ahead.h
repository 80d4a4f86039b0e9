// Read-ahead of the folders the count is about to list and of the files the
// walk is about to open.
//
// On a cold page cache the walk waits for the disk once per file, one request
// at a time, while the disk answers several requests at once much faster. A
// few helper threads ask the kernel (posix_fadvise WILLNEED) for the byte
// ranges the readers will read of the next regular files of the folder being
// scanned, and of the first ones of the folder scanned next, so those reads
// find their pages in the cache. The helpers only
// advise: of a file's data they read one byte, and only when it is cached
// already (that is how they tell a warm cache, on which they rest), and
// they touch neither the database, nor the counters, nor anything the run
// prints. The walk, the readers and the statements stay on the main thread
// in their order, so a file that changes between the advice and the read is
// read as it is then.
#ifndef MEDIAWALK_PLATFORM_READ_AHEAD_H_
#define MEDIAWALK_PLATFORM_READ_AHEAD_H_

#include <stddef.h>

#include <string>
#include <vector>

// How many entries the helpers are handed ahead of the walk at most.
constexpr int kReadAheadFiles = 16;
// How many helpers work at once: each waits for one file's status at a time,
// and a disk answers several requests at once faster than one after another.
constexpr int kReadAheadThreads = 4;

// Starts the helper threads, with SIGTERM blocked in them so that the signal
// is always taken by the main thread; they advise only files whose name
// `wanted` accepts. root_fd is the share root (kept as a copy), whose path,
// ending in "/", is root_len bytes long (0: no such root, and no folder is
// advised before the walk gets there). When no helper can start, the calls
// below do nothing and the run goes on unchanged.
void read_ahead_start(int root_fd, size_t root_len, bool (*wanted)(const char* name));

// The walk is about to handle entry `index` of `names`, the entries of the
// folder open as folder_fd: the helpers are handed the visible names up to
// kReadAheadFiles ahead (and advises those `wanted` accepts that are regular
// files, opened through its own copy of folder_fd without following a link),
// and drops what the walk has passed. Once that window reaches the folder's
// end, they are also handed next_folder (the path of the folder the walk
// takes next, below the root; null when none is known yet): they open it from
// the root without following a link, list it, and advise its first
// kReadAheadFiles such files in the walk's order, until the walk gets there.
void read_ahead_at(int folder_fd, const std::vector<std::string>& names, size_t index, const char* next_folder);

// Ends the helpers and waits for them. The termination handler needs no
// call: the helpers end with the process.
void read_ahead_stop();

// Lists ahead of the count, with helper threads, the folders under
// folder_fd (whose path is path_len bytes long, its "/" included) whose name
// `wanted` accepts and whose path stays below path_limit bytes, each opened
// without following a link: a cold disk then reads several folders at once
// where the count reads one after another. The helpers touch nothing but
// the folders they list, which the count reads in the same phase. At most
// kListedFolders listed folders wait with their subfolders, kListedNames
// names in all; the count alone lists the rest of a larger tree.
constexpr size_t kListedFolders = 64;
constexpr size_t kListedNames = 4096;
void list_ahead_start(int folder_fd, size_t path_len, size_t path_limit, bool (*wanted)(const char* name));

// Waits until the helpers have listed every folder they were to list, ends
// them and tells how many they listed (0 when none ran).
size_t list_ahead_finish();

#endif  // MEDIAWALK_PLATFORM_READ_AHEAD_H_
