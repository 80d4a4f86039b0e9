// The run's progress words: the counting walk and the driver set the total,
// the folder walk advances the files handled, the driver says when the scan is
// over, and the progress thread reads all three.
#ifndef MEDIAWALK_LIBRARY_PROGRESS_COUNTERS_H_
#define MEDIAWALK_LIBRARY_PROGRESS_COUNTERS_H_

#include <stdint.h>

#include <atomic>

// Written by the main thread alone, read by the progress thread; a reading
// one update behind only delays the display.
inline std::atomic<int32_t> total_file_cnt{0};  // files of a known class under the share
inline std::atomic<int32_t> total_scan_cnt{0};  // files of a known class handled so far
inline std::atomic<int32_t> scan_finished{0};   // 1 once the scan phases are over

#endif  // MEDIAWALK_LIBRARY_PROGRESS_COUNTERS_H_
