// libFuzzer target: get_sharefolder_from.
#include "targets.h"

MEDIAWALK_FUZZ_TARGET(fuzz::ShareFolder)
