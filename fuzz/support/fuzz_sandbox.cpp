#include "fuzz_sandbox.h"

#include <android/log.h>
#include <lmdroid/log_hook.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ftw.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "service_sandbox.h"

namespace {
void drop_line(int, const char*, const char*, void*) {}

[[noreturn]] void fail(const char* what, const std::string& path)
{
    fprintf(stderr, "fuzz sandbox: %s %s: %s\n", what, path.c_str(), strerror(errno));
    exit(1);
}

// The folder of a libFuzzer flag's value: "dir/crash-" is "dir", "dir/" is "dir", "crash-" is the current folder.
std::string folder_of(const std::string& value)
{
    size_t slash = value.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : value.substr(0, slash);
}

bool starts_with(const std::string& s, const char* prefix) { return s.compare(0, strlen(prefix), prefix) == 0; }

// The folders libFuzzer writes to, as absolute paths: corpus folders (its
// arguments that are folders) and the folder of its artifacts.
std::vector<std::string> libfuzzer_folders(int argc, char** argv)
{
    std::vector<std::string> named;
    bool artifactsNamed = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        struct stat st;
        if (starts_with(arg, "-artifact_prefix=")) {
            named.push_back(folder_of(arg.substr(strlen("-artifact_prefix="))));
            artifactsNamed = true;
        } else if (starts_with(arg, "-exact_artifact_path=")) {
            named.push_back(folder_of(arg.substr(strlen("-exact_artifact_path="))));
        } else if (arg[0] != '-' && stat(arg.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            named.push_back(arg);
        }
    }
    if (!artifactsNamed)
        named.push_back(".");
    std::vector<std::string> folders;
    for (const std::string& n : named) {
        char real[PATH_MAX];
        if (realpath(n.c_str(), real) == nullptr)
            continue;  // libFuzzer cannot write there either
        std::string path = real;
        if (path == "/") {
            errno = EPERM;
            fail("the root would stay writable; name another folder with -artifact_prefix:", path);
        }
        folders.push_back(path);
    }
    return folders;
}

// lum_fuzz_sh, built next to the targets.
std::string stub_shell()
{
    char exe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (n <= 0)
        fail("cannot read", "/proc/self/exe");
    exe[n] = '\0';
    std::string path = folder_of(exe) + "/lum_fuzz_sh";
    if (access(path.c_str(), X_OK) != 0)
        fail("no stub shell at", path);
    return path;
}

void mount_or_fail(const char* source, const std::string& target, const char* type, unsigned long flags,
                   const char* options)
{
    if (mount(source, target.c_str(), type, flags, options) != 0)
        fail("cannot mount", target);
}

void set_read_only(const std::string& path, bool readOnly, unsigned int flags)
{
    struct mount_attr attr;
    memset(&attr, 0, sizeof(attr));
    (readOnly ? attr.attr_set : attr.attr_clr) = MOUNT_ATTR_RDONLY;
    if (mount_setattr(AT_FDCWD, path.c_str(), flags, &attr, sizeof(attr)) != 0)
        fail("cannot change the read-only flag of", path);
}

// A /dev of the harmless nodes only: the real ones are bound from descriptors taken before the new /dev hides them.
void minimal_dev()
{
    static const char* const kNodes[] = {"null", "zero", "full", "random", "urandom"};
    int fds[sizeof(kNodes) / sizeof(kNodes[0])];
    for (size_t i = 0; i < sizeof(kNodes) / sizeof(kNodes[0]); ++i) {
        fds[i] = open((std::string("/dev/") + kNodes[i]).c_str(), O_PATH | O_CLOEXEC);
        if (fds[i] < 0)
            fail("cannot open", std::string("/dev/") + kNodes[i]);
    }
    mount_or_fail("lumfuzzdev", "/dev", "tmpfs", MS_NOSUID | MS_NOEXEC, "mode=755,size=64k");
    for (size_t i = 0; i < sizeof(kNodes) / sizeof(kNodes[0]); ++i) {
        std::string node = std::string("/dev/") + kNodes[i];
        int fd = open(node.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        if (fd < 0)
            fail("cannot create", node);
        close(fd);
        mount_or_fail(("/proc/self/fd/" + std::to_string(fds[i])).c_str(), node, nullptr, MS_BIND, nullptr);
        close(fds[i]);
    }
    if (symlink("/proc/self/fd", "/dev/fd") != 0)
        fail("cannot create", "/dev/fd");
}

int remove_entry(const char* path, const struct stat*, int, struct FTW* ftw)
{
    if (ftw->level > 0)
        remove(path);
    return 0;
}

void empty_folder(const char* path) { nftw(path, remove_entry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT); }

// The sandbox's promises, checked before any input runs: a shell line runs nothing, and the root cannot be written.
void check_sandbox()
{
    errno = 0;
    if (system("exit 3") != 0)
        fail("a shell line ran through", "/bin/sh");
    if (access("/", W_OK) == 0 || errno != EROFS)
        fail("the root stays writable:", "/");
}

}  // namespace

void fuzz_quiet_log()
{
    if (getenv("LUM_FUZZ_LOG") != nullptr)
        return;
    lmdroid_set_log_threshold(ANDROID_LOG_VERBOSE);
    lmdroid_set_log_hook(drop_line, nullptr, 1);
}

void fuzz_enter_sandbox(int argc, char** argv)
{
    std::vector<std::string> writable = libfuzzer_folders(argc, argv);
    if (!enter_service_sandbox(true, true))
        fail("cannot enter the service sandbox", "");
    mount_or_fail(nullptr, "/tmp", nullptr, MS_REMOUNT, "mode=1777,size=64m");
    mount_or_fail("lumfuzzmnt", "/mnt", "tmpfs", 0, "mode=755,size=16m");
    mount_or_fail(stub_shell().c_str(), "/bin/sh", nullptr, MS_BIND, nullptr);
    minimal_dev();
    // Each folder that stays writable becomes a mount of its own, so that its flag can be cleared alone.
    // Under /tmp only the build's own top folder is still there (the service sandbox binds it back).
    for (const std::string& folder : writable) {
        if (access(folder.c_str(), F_OK) != 0)
            fail("a corpus or artifact folder is hidden by the fresh /tmp, /mnt or /dev:", folder);
        mount_or_fail(folder.c_str(), folder, nullptr, MS_BIND, nullptr);
    }
    set_read_only("/", true, AT_RECURSIVE);
    writable.insert(writable.begin(), {"/tmp", "/mnt"});
    fprintf(stderr, "fuzz sandbox: writable:");
    for (const std::string& folder : writable) {
        set_read_only(folder, false, 0);
        fprintf(stderr, " %s", folder.c_str());
    }
    fprintf(stderr, "\n");
    check_sandbox();
    fuzz_reset_scratch();
}

void fuzz_reset_scratch()
{
    empty_folder("/tmp");
    empty_folder("/mnt");
    mkdir("/tmp/property", 0700);
    mkdir("/mnt/pvr", 0755);
    mkdir("/mnt/pvr/shared", 0755);
}
