// libFuzzer target: readconfig, -RC form.
#include "targets.h"

MEDIAWALK_FUZZ_TARGET(fuzz::ReadConfig)
