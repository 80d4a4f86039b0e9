#include "metadata/ask_detector.h"

#include <string.h>

#ifdef MEDIAWALK_BUILTIN_DETECTOR
#include "detector_core.h"

void ask_detector(const char* sample, char* answer, size_t cap, size_t max_read) {
  // One detector for the whole run: its state is reset for every sample.
  static CharsetDetector detector("/etc/codepage");
  memset(answer, 0, cap);
  const char* said = detector.detect(sample);
  memcpy(answer, said, strnlen(said, max_read));
}
#else
#include "platform/spawn.h"

void ask_detector(const char* sample, char* answer, size_t cap, size_t max_read) {
  // The sample goes to the detector as one argument; no shell sees it.
  spawn_read_output("detect_char_encode", sample, answer, cap, max_read);
}
#endif
