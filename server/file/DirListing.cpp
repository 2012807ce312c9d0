// The pieces of a listing that stand on their own: the request's path, the
// volume's time keeping, playlist names and the record bytes.
#include "DirListing.h"

#include <cstring>
#include <strings.h>
#include <sys/stat.h>

#include "ByteOrder.h"
#include "DevIdentify.h"
#include "MountTree.h"
#include "MountedVolumes.h"
#include "Playlist.h"
#include "ServiceLog.h"
#include "ShellProbe.h"
#include "ShellQuote.h"

#define FS_PREFIX_MAX 63     // bytes of a mount point that the mount check looks at
#define FS_PREFIX_SLASHES 5  // "/mnt/pvr/shared/sdb1/": the fifth "/" ends the mount point
#define FS_TYPE_LEN 32

bool copy_dir_name(char* dst, int dlen, const char* src)
{
    size_t n = strlen(src);
    if (dlen < 2 || n > static_cast<size_t>(dlen - 2)) {
        SLOGE("[%s, %d] ***E: directory name too long\n");
        return false;
    }
    memset(dst, 0, static_cast<size_t>(dlen));
    memcpy(dst, src, n);
    if (n > 0 && dst[n - 1] != '/') {
        SLOGW("[%s, %d] ***W: directory name shall end with '/' ('0x%02x')\n",
              static_cast<unsigned char>(dst[n - 1]));
        dst[n] = '/';
    }
    if (dst[0] != '/') {
        // The empty name has no first byte to show; '?' stands for it.
        char shown = dst[0] != '\0' ? dst[0] : '?';
        SLOGD("[%s, %d] ***W: directory name shall start with '/' ('%c'/0x%02x)\n", shown,
              static_cast<unsigned char>(dst[0]));
        return false;
    }
    return true;
}

namespace {

// The path up to its fifth "/", or false when it has fewer within the bound.
bool mount_point_prefix(const char* path, char* prefix)
{
    int slashes = 0;
    for (size_t i = 0; i < FS_PREFIX_MAX && path[i] != '\0'; ++i) {
        if (path[i] == '/' && ++slashes == FS_PREFIX_SLASHES) {
            memcpy(prefix, path, i);
            prefix[i] = '\0';
            return true;
        }
    }
    return false;
}

// The type of the volume whose mount point is prefix. A volume that the
// service mounted in the tree is known without a shell; any other path is
// looked up in mount's list.
void volume_fs_type(const char* prefix, char* type, size_t size)
{
    if (strncmp(prefix, MOUNT_DIR "/", sizeof(MOUNT_DIR)) == 0 && mounted_volume_type(prefix, type, size))
        return;
    char quoted[2 * FS_PREFIX_MAX + 1];
    if (shell_escape_dq(prefix, quoted, sizeof(quoted)) >= 0)
        parse_output_lines(get_fs_type_callback, type, "mount | grep \"%s\"", quoted);
}

}  // namespace

int fs_uses_utc_for_timestamp(const char* path)
{
    char prefix[FS_PREFIX_MAX + 1];
    if (!mount_point_prefix(path, prefix))
        return 0;
    char type[FS_TYPE_LEN] = {0};
    volume_fs_type(prefix, type, sizeof(type));
    SLOGD("[%s, %d] mount: %s, type: %s\n", prefix, type);
    if (strcmp(type, "fuseblk") == 0 || strncmp(type, "ext", 3) == 0)
        return 1;
    if (strcmp(type, "vfat") != 0 && strcmp(type, "mptpfs") != 0)
        SLOGW("[%s, %d] unrecognized file system: '%s'\n", type);
    return 0;
}

int is_playlist_file(const char* path)
{
    const char* dot = strrchr(path, '.');
    if (dot == nullptr)
        return 0;
    return strcasecmp(dot, ".M3U") == 0 || strcasecmp(dot, ".M3U/") == 0;
}

namespace {

int placeholder_mtime(const char* name, time_t* mtime)
{
    char full[4096];
    snprintf(full, sizeof(full), "%s%s", M3U_TEMP_DIR, name);
    struct stat st;
    if (stat(full, &st) != 0) {
        SLOGE("[%s, %d] stat() failed\n");
        return -1;
    }
    *mtime = st.st_mtime;
    return 0;
}

}  // namespace

int PlaylistDirectoriesByTimeStampSort(const struct dirent64** a, const struct dirent64** b)
{
    time_t ta;
    time_t tb;
    if (placeholder_mtime((*a)->d_name, &ta) != 0 || placeholder_mtime((*b)->d_name, &tb) != 0)
        return 0;
    return ta > tb ? 1 : 0;
}

void put_file_time(unsigned char* info_file, int64_t mtime)
{
    int64_t days = mtime / 86400;
    int64_t seconds = mtime % 86400;
    if (seconds < 0) {
        days -= 1;
        seconds += 86400;
    }
    int64_t minutes = seconds / 60;
    put_be24(info_file + 5, static_cast<uint32_t>(days + MJD_OF_1970));
    info_file[8] = static_cast<unsigned char>(minutes / 60);
    info_file[9] = static_cast<unsigned char>(minutes % 60);
}

int dir_record_size(const char* name, const file_tag& t)
{
    size_t n = strlen(name) + t.title.size() + t.artist.size() + t.album.size() + t.genre.size() +
               t.httpLink.size();
    return static_cast<int>(n) + LISTING_RECORD_FIXED;
}

namespace {

unsigned char* put_text(unsigned char* p, const char* text, size_t n)
{
    memcpy(p, text, n);
    p[n] = '\0';
    return p + n + 1;
}

}  // namespace

int put_dir_record(unsigned char* out, const unsigned char* info_file, const char* name, const file_tag& t,
                   const unsigned char* info_tag)
{
    unsigned char* p = out;
    memcpy(p, info_file, INFO_FILE_LEN);
    p += INFO_FILE_LEN;
    p = put_text(p, name, strlen(name));
    for (const std::string* s : {&t.title, &t.artist, &t.album, &t.genre, &t.httpLink})
        p = put_text(p, s->data(), s->size());
    *p++ = 0;  // separator
    memcpy(p, info_tag, INFO_TAG_LEN);
    p += INFO_TAG_LEN;
    return static_cast<int>(p - out);
}
