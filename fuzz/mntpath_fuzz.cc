// libFuzzer target: get_mntpath.
#include "targets.h"

MEDIAWALK_FUZZ_TARGET(fuzz::MntPath)
