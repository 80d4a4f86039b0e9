// libFuzzer target: iconv_string.
#include "targets.h"

MEDIAWALK_FUZZ_TARGET(fuzz::IconvString)
