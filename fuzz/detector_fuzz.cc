// libFuzzer target: the charset detector routine under each language setting.
#include "targets.h"

MEDIAWALK_FUZZ_TARGET(fuzz::Detector)
