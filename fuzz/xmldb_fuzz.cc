// libFuzzer target: the xmldb client's reply readers.
#include "targets.h"

MEDIAWALK_FUZZ_TARGET(fuzz::Xmldb)
