#ifndef MEDIAWALK_LIBRARY_SORT_H_
#define MEDIAWALK_LIBRARY_SORT_H_

// Fills the six pre-sorted tables in display order. Returns 1 when all six
// steps succeeded, 0 at the first failure.
int sort_dbtable();

#endif  // MEDIAWALK_LIBRARY_SORT_H_
