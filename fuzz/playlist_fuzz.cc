// libFuzzer target: parser_playlist.
#include "targets.h"

MEDIAWALK_FUZZ_TARGET(fuzz::PlaylistTarget)
