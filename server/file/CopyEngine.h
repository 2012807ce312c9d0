// The copy engine: one file, a recording with its companions, or a tree,
// copied inside the process one file at a time. CopyFile and CopyDir serve
// any thread; Copy (a member of the service) runs them on a thread of its
// own and reports the end by LUM_TV_EVT_STORAGE_COPY.
#pragma once

#include <atomic>
#include <sys/stat.h>

#define COPY_PATH_MAX 256       // bytes of a path that a Copy request may carry
#define COPY_CTX_PATH_LEN 264   // the context's path fields
#define COPY_MAX_CUTS 64
#define COPY_WALK_PATH_LEN 260  // the tree walk's path buffer, terminator included
#define COPY_COMPANION_PATH_LEN 286

// Result bytes of LUM_TV_EVT_STORAGE_COPY besides CopyFile's own.
#define COPY_RESULT_OK 0
#define COPY_RESULT_REFUSED 1
#define COPY_RESULT_BUSY 5
#define COPY_RESULT_PROTECTED 13

// What to copy: -1 a tree, 0 a file, 1 and 2 a recording, 3 a cut copy (the
// request's cut arguments are read and checked, the copy itself is refused).
#define COPY_TYPE_TREE (-1)
#define COPY_TYPE_FILE 0
#define COPY_TYPE_CUT 3

typedef struct {
    int type;
    char src[COPY_CTX_PATH_LEN];
    char dst[COPY_CTX_PATH_LEN];
    unsigned char src_flags;
    unsigned char dst_flags;
    int num_cuts;
    int cuts[COPY_MAX_CUTS];
} COPY_THREAD_CONTEXT;

// The context of copy_file_callback during one CopyDir.
typedef struct {
    char* rel;                          // the walker's path behind the source root
    const char* dst;                    // the destination root, with its "/"
    const std::atomic<bool>* cancel;    // polled per entry and per block; null: never stops
} COPY_DIR_PARAMS;

// A tree and its twin at another place, ready for a walk: path holds the
// source with its "/", root the destination with its "/", and p refers to
// them both.
typedef struct {
    char path[COPY_WALK_PATH_LEN];
    char root[COPY_WALK_PATH_LEN];
    COPY_DIR_PARAMS p;
} COPY_TREE_PAIR;

// Gets the walk's context, the entry's full path and its lstat64 result.
// Non-zero stops the walk and becomes its result.
typedef int (*FILE_CALLBACK)(void* context, const char* path, const struct stat64* s);

// Walks the tree below path, which holds a directory with its trailing "/"
// in a writable buffer: path_end points at its terminator, buf_end behind
// the buffer. Entries whose full path does not fit are logged and left out;
// symbolic links are not followed. recurse_first: post-order, else pre-order.
// 0: the walk went through.
// other: the first non-zero value of callback, or the errno of a failed
// opendir, readdir or lstat64. path is as it was on return.
int BrowseDir(char* path, char* path_end, const char* buf_end, bool recurse_first, FILE_CALLBACK callback,
              void* context);

// Copies one file (into dst/name when dst is a folder), then gives the copy
// the source's owner, mode and times where its file system takes them (as
// "cp -p" on the television). A write-protected destination is never
// overwritten, and a copy that fails part way is removed.
// 0: copied.
// 1: the copy failed (no source, a source that is a folder or the
//    destination itself, a failed read or write).
// 13: the destination is write-protected; nothing was opened.
// 24: the process has no file descriptor left.
// 28: the destination's file system is full (the write said ENOSPC).
// 255: a null or relative path, or a name of the copy that does not fit.
int CopyFile(const char* pSrc, const char* pDst);

// CopyFile that polls cancel (may be null) before each block of the file; a
// cancelled copy is removed and gives 1.
int copy_file_until(const char* pSrc, const char* pDst, const std::atomic<bool>* cancel);

// Copies the tree pSrcPath into the new directory pDstPath (either may lack
// its trailing "/"). Regular files and directories are copied, anything else
// is left out. Never stopped by a cancel: that reaches the copy thread only.
// 0: copied.
// -1: a null path, a source that is no directory or does not fit the walk's
//     buffer, a destination inside the source, or a destination that could
//     not be made (also one that exists): nothing was written.
// other: the first failure of the walk; what was copied before it stays.
int CopyDir(const char* pSrcPath, const char* pDstPath);

// CopyDir that polls cancel (may be null) before each entry and each block
// of a file, a cancelled walk giving 1. *created (may be null) tells whether
// the destination directory was made by this call, so that a caller may
// clean up its own half-finished work and nothing else.
int copy_dir_walk(const char* pSrcPath, const char* pDstPath, const std::atomic<bool>* cancel, bool* created);

// Fills pair for src and dst. false when a path (with its "/") does not fit.
bool tree_pair_init(COPY_TREE_PAIR* pair, const char* pSrcPath, const char* pDstPath,
                    const std::atomic<bool>* cancel);
// BrowseDir over pair's source with &pair->p as the context.
int tree_pair_walk(COPY_TREE_PAIR* pair, bool recurse_first, FILE_CALLBACK callback);
// The twin of the walk's current entry (p->dst + p->rel) in out of
// COPY_WALK_PATH_LEN bytes. false when it does not fit: a twin cut short
// would name another file.
bool tree_pair_target(const COPY_DIR_PARAMS* p, char* out);

// Sends LUM_TV_EVT_STORAGE_OUT_OF_SPACE with the low byte of cmd_id.
bool NotifyDiscOutOfSpace(int cmd_id);

// Reads a Copy request of len bytes (src NUL dst NUL [type [cut arguments]])
// into ctx, which it zeroes first. The caller has handled the cancel (an
// empty src).
// 0: ctx holds a request to start.
// 1: refused (unterminated or over-long paths, bad cut arguments).
int parse_copy_request(const unsigned char* buf, int len, COPY_THREAD_CONTEXT* ctx);

// State of the copy thread, for the service's traces and the tests.
bool copy_running();
int copy_threads_alive();
