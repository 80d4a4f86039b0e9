// libFuzzer target: get_img_size.
#include "targets.h"

MEDIAWALK_FUZZ_TARGET(fuzz::ImgSize)
