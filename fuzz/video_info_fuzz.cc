// libFuzzer target: get_video_info.
#include "targets.h"

MEDIAWALK_FUZZ_TARGET(fuzz::VideoInfoTarget)
