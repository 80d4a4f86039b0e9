// The media type table: from a file name's extension alone, whether a file
// belongs in the library and as what.
#ifndef MEDIAWALK_LIBRARY_MEDIA_TYPES_H_
#define MEDIAWALK_LIBRARY_MEDIA_TYPES_H_

enum MediaClass {
  kClassNone = 0,
  kClassPhoto = 1,
  kClassVideo = 2,
  kClassMusic = 3,
  kClassPlaylist = 4,
  kClassSubtitle = 5,
};

// Classifies the text from the last "." of a name (dot included, any case).
// The first of the 31 rows that matches without regard to case decides.
MediaClass media_class_of(const char* dot_ext);

#endif  // MEDIAWALK_LIBRARY_MEDIA_TYPES_H_
