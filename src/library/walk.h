// The folder walk: one call of ScanMusic per folder, breadth-first through the
// folder queue, one row per folder and per known file.
#ifndef MEDIAWALK_LIBRARY_WALK_H_
#define MEDIAWALK_LIBRARY_WALK_H_

#include <stddef.h>
#include <stdint.h>

// Bytes of a queued folder path, terminator included: the driver's folder
// buffer (sharefolder) that delqueue fills has this size. A folder path plus
// name stays below 512 bytes, so a subfolder's path with its "/" is at most
// 512 bytes and fits with its terminator.
constexpr size_t kFolderPathSize = 513;

// Scans folder `path` (ending in "/") at depth `layer`. Layer 0 is the share
// root, opened as configured; any other folder is reached from the root
// without following a link, and its files are read through its descriptor,
// so a folder swapped for a link is passed over as one that vanished.
// Returns 1 when the folder was handled to its end (also when it could not
// be opened, listed or was empty), 0 when an SQL statement failed.
int ScanMusic(const char* path, int layer);

// Appends a folder to the tail of the folder queue. When no node can be
// allocated, or the path does not fit kFolderPathSize, the folder is dropped
// after a message.
void addqueuex(const char* path, int layer);

// Takes the folder at the head of the queue: copies its path into dest
// (kFolderPathSize bytes) and its layer into *layer. Returns 1, or 0 when
// empty ("delqueue::nothing in queue").
int delqueue(char* dest, int* layer);

// True while the folder queue holds a folder.
bool queue_has_folders();

// ObjID of the parent row of folder `path` in path_objid_tbl, 0 on failure.
uint64_t get_parid(const char* path);

// Rewrites text in place so that it holds no double quote (each becomes a
// single quote, and the text is cut to 49 bytes). Returns text, or null when
// it held no double quote.
char* check_special_symbol(char* text);

// Lowers every byte of text in place with tolower.
void str_tolower(char* text);

// For tests: empties the folder queue, forgets the share root and sets the
// row numbers back to 1 and the music record to zeros, as at process start. The object identifier
// counters and total_scan_cnt are left to their owners.
void reset_walk_state();

#endif  // MEDIAWALK_LIBRARY_WALK_H_
