// The packed request of a rename or a move: byte 0 the recording flag, then
// the source and the destination, each with its NUL, in a zeroed buffer.
#pragma once

#define PATH_PAIR_BUF_LEN 512

// Packs flag, pSrc and pDst into buf. False, with buf zeroed and a warning
// that names cmd, when a path is missing or strlen + strlen + 3 does not fit.
bool pack_path_pair(int cmd, const char* pSrc, const char* pDst, bool flag,
                    unsigned char (&buf)[PATH_PAIR_BUF_LEN]);

// The two paths of a packed request; false unless each ends inside the len
// bytes of buf.
bool unpack_path_pair(const unsigned char* buf, int len, const char** src, const char** dst);
