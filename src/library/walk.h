// The folder walk: one call of ScanMusic per folder, breadth-first through the
// folder queue, one row per folder and per known file.
#ifndef MEDIAWALK_LIBRARY_WALK_H_
#define MEDIAWALK_LIBRARY_WALK_H_

#include <stdint.h>

// Scans folder `path` (ending in "/") at depth `layer`. Returns 1 when the
// folder was handled to its end (also when it could not be listed or was
// empty), 0 when an SQL statement failed.
int ScanMusic(const char* path, int layer);

// Appends a folder to the tail of the folder queue.
void addqueuex(const char* path, int layer);

// Takes the folder at the head of the queue: copies its path into dest
// (512 bytes) and its layer into *layer. Returns 1, or 0 when empty.
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

#endif  // MEDIAWALK_LIBRARY_WALK_H_
