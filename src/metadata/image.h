// Image dimensions of BMP, GIF, JPEG, TIFF and PNG files, told by their first
// bytes, not their extension.
#ifndef MEDIAWALK_METADATA_IMAGE_H_
#define MEDIAWALK_METADATA_IMAGE_H_

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

struct ImageInfo {
  char path[512];      // wide enough for every path the walk admits (511 + NUL)
  FILE* file;          // the open stream while the reader runs
  uint32_t file_size;  // bytes
  int32_t type;        // 0 BMP, 1 JPEG, 2 GIF, 3 TIFF, 4 PNG; 1 also when unknown
  int32_t width;
  int32_t height;
  int32_t depth;       // bits per pixel
};

// The JPEG reader streams the file through a window of this many bytes (plus
// a small overlap) instead of holding it whole; exposed so that tests can
// place a frame header across a window boundary.
constexpr size_t kJpegScanChunk = 64 * 1024;

// Reads width, height and depth of the file named in info->path; they are
// written only when found. Returns 1 when the format was recognised and read,
// 0 when the file cannot be opened or the format is not recognised.
int get_img_size(ImageInfo* info);

#endif  // MEDIAWALK_METADATA_IMAGE_H_
