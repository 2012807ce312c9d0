// The request text of a Copy: src NUL dst NUL [type [src_flags dst_flags
// cut values]], taken apart into the copy thread's context.
#include <cstring>

#include "ByteOrder.h"
#include "CopyEngine.h"
#include "ServiceLog.h"

// Two flag bytes and at most 64 values of 4 bytes stand behind the type byte.
#define COPY_CUT_FLAGS_LEN 2
#define COPY_CUT_VALUE_LEN 4
#define COPY_CUT_ARGS_MAX (COPY_CUT_FLAGS_LEN + COPY_MAX_CUTS * COPY_CUT_VALUE_LEN)

namespace {

// The terminated text at buf[at] within len bytes, of at most COPY_PATH_MAX
// bytes, into out. A text that runs to the end of the request or past the
// limit is refused: a path cut short would name another file.
bool take_path(const unsigned char* buf, int len, int at, char* out, const char* what)
{
    const void* nul = memchr(buf + at, '\0', static_cast<size_t>(len - at));
    if (nul == nullptr) {
        SLOGE("[%s, %d] ***E: %s runs to the end of the request (%d bytes)\n", what, len);
        return false;
    }
    size_t n = static_cast<size_t>(static_cast<const unsigned char*>(nul) - (buf + at));
    if (n > COPY_PATH_MAX) {
        SLOGE("[%s, %d] ***E: %s of %zu bytes is too long\n", what, n);
        return false;
    }
    memcpy(out, buf + at, n + 1);
    return true;
}

// The cut arguments behind the type byte at pt.
bool take_cut_arguments(const unsigned char* buf, int len, int pt, COPY_THREAD_CONTEXT* ctx)
{
    int cut_arg_len = len - pt - 1;
    SLOGD("[%s, %d] cut_arg_len=%d (cut_arg_len MOD 4)=%d\n", cut_arg_len, cut_arg_len % 4);
    if (cut_arg_len % COPY_CUT_VALUE_LEN != COPY_CUT_FLAGS_LEN || cut_arg_len > COPY_CUT_ARGS_MAX) {
        SLOGE("[%s, %d] ***E: invalid cut arguments\n");
        return false;
    }
    const unsigned char* p = buf + pt + 1;
    ctx->src_flags = p[0];
    ctx->dst_flags = p[1];
    ctx->num_cuts = (cut_arg_len - COPY_CUT_FLAGS_LEN) / COPY_CUT_VALUE_LEN;
    for (int i = 0; i < ctx->num_cuts; ++i)
        ctx->cuts[i] = static_cast<int>(get_be32(p + COPY_CUT_FLAGS_LEN + i * COPY_CUT_VALUE_LEN));
    return true;
}

}  // namespace

int parse_copy_request(const unsigned char* buf, int len, COPY_THREAD_CONTEXT* ctx)
{
    memset(ctx, 0, sizeof(*ctx));
    if (buf == nullptr || len < 1 || !take_path(buf, len, 0, ctx->src, "source"))
        return COPY_RESULT_REFUSED;
    size_t srcLen = strlen(ctx->src);
    if (srcLen == 0)
        return COPY_RESULT_REFUSED;  // the cancel, which the caller handles
    int at = static_cast<int>(srcLen) + 1;
    // A request that ends with the source (an old client's) has an empty
    // destination, which cp refuses.
    if (at < len && !take_path(buf, len, at, ctx->dst, "destination"))
        return COPY_RESULT_REFUSED;
    int pt = at < len ? at + static_cast<int>(strlen(ctx->dst)) + 1 : len;
    if (ctx->src[srcLen - 1] == '/') {
        ctx->type = COPY_TYPE_TREE;  // whatever type byte follows
    } else if (pt < len) {
        ctx->type = buf[pt];
        if (ctx->type == COPY_TYPE_CUT && !take_cut_arguments(buf, len, pt, ctx))
            return COPY_RESULT_REFUSED;
    } else {
        ctx->type = COPY_TYPE_FILE;
    }
    return 0;
}
