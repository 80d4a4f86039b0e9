// Image dimensions of a file, told by its first bytes (table in tests/data/cases/image_files.tsv).
#include "metadata/image.h"

#include <string.h>

#include "platform/text.h"
#include "reader_case.h"

namespace {

TABLE_TEST(ImageFile, "image_files.tsv") {
  check_reader(c, 1, "picture.jpg", c.at(0), [](const std::string& path) {
    ImageInfo info;
    memset(&info, 0, sizeof info);
    copy_bounded(info.path, path.c_str());
    int rc = 0;
    const std::string out = stdout_of([&] { rc = get_img_size(&info); });
    char got[96];
    snprintf(got, sizeof got, "%d %d %d %d %d|", rc, info.type, info.width, info.height, info.depth);
    return got + out;
  });
}

}  // namespace
