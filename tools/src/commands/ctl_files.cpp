// mkdir, rm, rmdir, protect, unprotect, mv, rename and write: one request
// each, answered by one result byte (file_op.cpp).
#include <functional>

#include <StorageEvents.h>
#include <StorageModuleCmd.h>

#include "ctl_device.h"
#include "lumctl/file_requests.h"

namespace lumctl {

namespace {

// Sends op once its request was built (built 0), or reports why it was not.
int send_op(const CtlContext& ctx, FileOp* op, int built, const std::string& error)
{
    if (built != 0)
        return usage_error(ctx, std::string(op->call.sub) + ": " + error);
    return run_file_op(ctx, *op);
}

// A subcommand on one path with no flags.
int one_path(const CtlContext& ctx, FileOp* op, const DeviceArgs& args,
             const std::function<int(const std::string& path, Bytes* out, std::string* error)>& build)
{
    device_args(ctx, &op->call, args, kFileTimeoutSeconds);
    const std::string path = op->call.args.operands[0];
    op->names = {{"path", path}};
    std::string error;
    return send_op(ctx, op, build(path, &op->request, &error), error);
}

int run_protection(const CtlContext& ctx, const char* sub, bool protect, const DeviceArgs& args)
{
    FileOp op;
    op.call = {sub, "STORAGE_SET_PROTECTED", {}, "no result will come"};
    op.event = LUM_TV_EVT_STORAGE_SET_PROTECTED;
    return one_path(ctx, &op, args, [protect](const std::string& path, Bytes* out, std::string* error) {
        return build_set_protected(path, protect, out, error);
    });
}

// mv and rename: SRC DST [--recording], on the caller's thread.
int run_two_paths(const CtlContext& ctx, const char* sub, int32_t word, int32_t event, double timeout,
                  const DeviceArgs& args)
{
    FileOp op;
    op.call = {sub, "", {}, nullptr};
    op.event = event;
    op.direct = true;
    device_args(ctx, &op.call, args, timeout);
    const std::string src = op.call.args.operands[0];
    const std::string dst = op.call.args.operands[1];
    op.names = {{"source", src}, {"destination", dst}, {"recording", args.recording}};
    // A move to another volume copies first.
    op.progress = word == STROAGE_LUM_MOVE && across_volumes(src, dst);
    op.shape = args.recording ? CopyShape::kRecording : CopyShape::kFile;
    std::string error;
    return send_op(ctx, &op, build_packed_paths(word, src, dst, args.recording, &op.request, &error), error);
}

}  // namespace

int run_mkdir(const CtlContext& ctx, const DeviceArgs& args)
{
    FileOp op;
    op.call = {"mkdir", "STORAGE_CREATE_DIR", {}, nullptr};
    op.event = LUM_TV_EVT_STORAGE_CREATE_DIR;
    op.direct = true;
    return one_path(ctx, &op, args, build_create_dir);
}

int run_rmdir(const CtlContext& ctx, const DeviceArgs& args)
{
    FileOp op;
    op.call = {"rmdir", "STORAGE_DELETE_DIR", {}, nullptr};
    op.event = LUM_TV_EVT_STORAGE_DELETE_DIR;
    op.direct = true;
    return one_path(ctx, &op, args, [](const std::string& path, Bytes* out, std::string* error) {
        return build_delete_dir(path, kDeleteEmptyDir, out, error);
    });
}

// rm PATH: a file; rm --recording PATH.ts: with its companions; rm -r PATH:
// a tree.
int run_rm(const CtlContext& ctx, const DeviceArgs& args)
{
    const bool tree = args.tree;
    const bool recording = args.recording;
    FileOp op;
    op.call = {"rm", tree ? "STORAGE_DELETE_DIR" : "STORAGE_DELETE_FILE", {}, nullptr};
    op.event = tree ? LUM_TV_EVT_STORAGE_DELETE_DIR : LUM_TV_EVT_STORAGE_DELETE_FILE;
    op.direct = true;
    device_args(ctx, &op.call, args, tree ? kTreeTimeoutSeconds : kFileTimeoutSeconds);
    const std::string path = op.call.args.operands[0];
    op.names = {{"path", path}};
    if (!tree)
        op.names["recording"] = recording;
    std::string error;
    int built = tree ? build_delete_dir(path, kDeleteTree, &op.request, &error)
                     : build_delete_file(path, recording, &op.request, &error);
    return send_op(ctx, &op, built, error);
}

int run_protect(const CtlContext& ctx, const DeviceArgs& args)
{
    return run_protection(ctx, "protect", true, args);
}

int run_unprotect(const CtlContext& ctx, const DeviceArgs& args)
{
    return run_protection(ctx, "unprotect", false, args);
}

int run_mv(const CtlContext& ctx, const DeviceArgs& args)
{
    // A move to another volume copies, on the caller's thread, before the
    // reply comes.
    return run_two_paths(ctx, "mv", STROAGE_LUM_MOVE, LUM_TV_EVT_STORAGE_MOVE_FILE, kCopyTimeoutSeconds, args);
}

int run_rename(const CtlContext& ctx, const DeviceArgs& args)
{
    return run_two_paths(ctx, "rename", STORAGE_RENAME_FILE, LUM_TV_EVT_STORAGE_RENAME_FILE, kFileTimeoutSeconds, args);
}

// write PATH [FILE|-]: the data of FILE, or of standard input.
int run_write(const CtlContext& ctx, const DeviceArgs& args)
{
    FileOp op;
    op.call = {"write", "STORAGE_WRITE_FILE", {}, nullptr};
    op.event = LUM_TV_EVT_STORAGE_WRITE_FILE;
    op.direct = true;
    device_args(ctx, &op.call, args, kFileTimeoutSeconds);
    const std::string path = op.call.args.operands[0];
    const std::string source = op.call.args.operands.size() > 1 ? op.call.args.operands[1] : "-";
    Bytes data;
    std::string error;
    if (read_data(source, ctx.in, &data, &error) != 0)
        return usage_error(ctx, "write: " + error);
    op.names = {{"path", path}, {"bytes", data.size()}};
    return send_op(ctx, &op, build_write_file(path, data, &op.request, &error), error);
}

}  // namespace lumctl
