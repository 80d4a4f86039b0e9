// Asks the charset detector about a tag sample.
#ifndef MEDIAWALK_METADATA_ASK_DETECTOR_H_
#define MEDIAWALK_METADATA_ASK_DETECTOR_H_

#include <stddef.h>

// Writes the detector's answer for the terminated sample into answer[cap]:
// zeroed first, then at most max_read bytes (below cap, so the text stays
// terminated). The default build starts detect_char_encode from PATH with the
// sample as its one argument; a build with MEDIAWALK_BUILTIN_DETECTOR asks the
// same routine in this process, with the language setting of /etc/codepage
// read at the first call. Either way a missing or silent detector gives the
// empty answer.
void ask_detector(const char* sample, char* answer, size_t cap, size_t max_read);

#endif  // MEDIAWALK_METADATA_ASK_DETECTOR_H_
