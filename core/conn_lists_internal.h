// Display names, cleaned the same way wherever they enter: from a list, from a peer, from a caller.
#ifndef TARN_CONN_LISTS_INTERNAL_H
#define TARN_CONN_LISTS_INTERNAL_H

// Copies at most 63 bytes of `src` (null counts as empty) and fills up with zeros; control bytes become spaces, and a
// UTF-8 character that doesn't fit whole is left out. The texts must not overlap unless dst == src.
void conn_clean_name(char dst[64], const char *src);

#endif
