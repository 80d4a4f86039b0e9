#ifndef MEDIAWALK_LIBRARY_PLAYLIST_H_
#define MEDIAWALK_LIBRARY_PLAYLIST_H_

// Resolves every m3u and pls playlist row of music_tbl against the music rows
// of its folder and stores the member rows' No values in PlsFile.
// Returns 1 when both passes ran to the end, 0 on a failure that ends them.
int parser_playlist();

#endif  // MEDIAWALK_LIBRARY_PLAYLIST_H_
