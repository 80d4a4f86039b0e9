// Object identifier counters. Each kind of object draws from a range of its
// own, so the leading digits of an identifier tell its kind.
#ifndef MEDIAWALK_LIBRARY_OBJID_H_
#define MEDIAWALK_LIBRARY_OBJID_H_

#include <stdint.h>

// Twelve unsigned 64-bit counters in this order; the three spares are never
// set or read and stay 0. A counter always holds the next identifier to hand out.
struct ObjIdCounters {
  uint64_t media_path_objid;      // folder being scanned
  uint64_t media_path_parid;      // its parent (assigned per folder, not counted)
  uint64_t video_file_objid;
  uint64_t photo_file_objid;
  uint64_t music_file_objid;      // music and playlist rows
  uint64_t music_file_pls_parid;  // playlist container, never advanced
  uint64_t music_file_gen_objid;
  uint64_t spare1;
  uint64_t music_file_art_objid;
  uint64_t spare2;
  uint64_t music_file_alb_objid;
  uint64_t spare3;
};

extern ObjIdCounters init_objid;

// Sets the nine counters in use to their bases.
void init_objid_counters();

// Returns the counter's current value and advances it by one (64-bit).
inline uint64_t take_objid(uint64_t* counter) { return (*counter)++; }

// Writes the nine rows of record_objid_tbl. Errors are not examined; returns
// the result of the last statement (true when it succeeded).
bool record_objid_tbl();

#endif  // MEDIAWALK_LIBRARY_OBJID_H_
