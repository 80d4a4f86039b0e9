// detect_char_encode: names the charset of a short text sample.
//
// The tag reader starts it once per MP3 file with the raw bytes of the tag's
// texts as its one argument, reads at most 18 bytes of what it prints and
// picks the conversion by exact comparison. So the answer is printed in the
// spelling the reader expects and without a trailing newline; an empty or
// undetectable sample prints nothing. The exit status is always 0: the reader
// does not look at it, and a failure must only mean "no answer".
#include <stdio.h>

#include "detector_core.h"

int main(int argc, char** argv) {
  if (argc < 2 || argv[1][0] == '\0') return 0;
  CharsetDetector detector("/etc/codepage");
  fputs(detector.detect(argv[1]), stdout);
  return 0;
}
