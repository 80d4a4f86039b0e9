// Names the charset of a short text sample: the routine behind the
// detect_char_encode tool, also linked into the scanner by the
// MEDIAWALK_BUILTIN_DETECTOR build option so that both answer alike.
#ifndef MEDIAWALK_TOOLS_DETECTOR_CORE_H_
#define MEDIAWALK_TOOLS_DETECTOR_CORE_H_

#include <uchardet/uchardet.h>

#include "platform/holders.h"

// One detection object, reset for every sample, so that a run that asks many
// times holds the library's state once.
class CharsetDetector : NoCopy {
 public:
  // Reads the language setting once from codepage_file (the appliance's
  // /etc/codepage, read as the scanner reads it). A missing or unreadable
  // file, or a label without a double-byte charset, means no preference.
  explicit CharsetDetector(const char* codepage_file);
  ~CharsetDetector();

  // The charset of the terminated sample, in the spelling the tag reader
  // compares (see the README), or "" for an empty or undetectable sample.
  // The text is static or owned by this object and valid until the next call.
  const char* detect(const char* sample);

 private:
  uchardet_t library_;
  int preferred_;  // index into the double-byte charset table, or -1
};

#endif  // MEDIAWALK_TOOLS_DETECTOR_CORE_H_
