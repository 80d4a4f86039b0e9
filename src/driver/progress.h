// The counting walk and the progress thread.
#ifndef MEDIAWALK_DRIVER_PROGRESS_H_
#define MEDIAWALK_DRIVER_PROGRESS_H_

#include <dirent.h>
#include <stdint.h>

#include "library/progress_counters.h"

// Counts the files of a known class in folder `path` (ending in "/") and
// below it, depth-first; each one also advances total_file_cnt. The caller
// opens `dir` on path and closes it.
int32_t Cnt_total_file(const char* path, DIR* dir);

// Body of the progress thread: publishes both counters every 3 seconds until
// scan_finished is 1. Started detached-in-effect (never joined).
void* progress_thread(void* unused);

// Where the progress thread sends each node and value. Null (the default)
// means xmldbc_set(0, 0, node, value); tests put a recorder here.
using ProgressPublisher = int (*)(const char* node, const char* value);
void set_progress_publisher(ProgressPublisher publisher);

#endif  // MEDIAWALK_DRIVER_PROGRESS_H_
