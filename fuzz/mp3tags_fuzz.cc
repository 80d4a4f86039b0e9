// libFuzzer target: scan_get_mp3tags.
#include "targets.h"

MEDIAWALK_FUZZ_TARGET(fuzz::Mp3Tags)
