// libFuzzer target: scan_get_mp3fileinfo.
#include "targets.h"

MEDIAWALK_FUZZ_TARGET(fuzz::Mp3FileInfo)
