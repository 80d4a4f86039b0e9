// libFuzzer target: CodePageType_from.
#include "targets.h"

MEDIAWALK_FUZZ_TARGET(fuzz::CodePage)
