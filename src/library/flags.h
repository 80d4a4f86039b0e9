#ifndef MEDIAWALK_LIBRARY_FLAGS_H_
#define MEDIAWALK_LIBRARY_FLAGS_H_

// Marks each folder row with whether video, music or photos lie in it or
// below it. Returns 1 on success (also for an empty folder table), 0 on failure.
int Assign_pathtbl_media();

#endif  // MEDIAWALK_LIBRARY_FLAGS_H_
