#include "DevIdentify.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iconv.h>

#include "ServiceLog.h"
#include "ShellProbe.h"
#include "ShellQuote.h"
#include "StrUtil.h"

const FS_ID _fs_ids[10] = {
    {"vfat", FS_ID_FAT},   {"ntfs", FS_ID_NTFS}, {"ntfs-3g", FS_ID_NTFS}, {"fuseblk", FS_ID_NTFS},
    {"ufsd", FS_ID_NTFS},  {"exfat", FS_ID_REFUSED}, {"ext2", FS_ID_EXT}, {"ext3", FS_ID_EXT},
    {"ext4", FS_ID_EXT},   {nullptr, 0},
};

namespace {

// One shell word of a client's or a volume's text, for use inside "...".
bool quote_arg(const char* text, char* out, size_t size)
{
    if (shell_escape_dq(text, out, size) < 0) {
        SLOGE("[%s, %d] ***E: argument too long for a command line\n");
        return false;
    }
    return true;
}

// Block device names in sysfs are plain: sda, sdb1, mmcblk0p1.
bool is_plain_dev_name(const char* name)
{
    if (*name == '\0')
        return false;
    for (const char* p = name; *p != '\0'; ++p) {
        if (!((*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z') || (*p >= '0' && *p <= '9') ||
              *p == '_' || *p == '-' || *p == '.'))
            return false;
    }
    return true;
}

// Length of the UTF-8 sequence led by c, its lead bits and smallest code point.
bool utf8_lead(unsigned char c, int* len, unsigned* cp, unsigned* min)
{
    if (c < 0x80) { *len = 1; *cp = c; *min = 0; }
    else if ((c & 0xE0) == 0xC0) { *len = 2; *cp = c & 0x1F; *min = 0x80; }
    else if ((c & 0xF0) == 0xE0) { *len = 3; *cp = c & 0x0F; *min = 0x800; }
    else if ((c & 0xF8) == 0xF0) { *len = 4; *cp = c & 0x07; *min = 0x10000; }
    else return false;
    return true;
}

}  // namespace

bool is_valid_utf8(const char* string)
{
    if (string == nullptr)
        return true;
    const auto* s = reinterpret_cast<const unsigned char*>(string);
    while (*s != 0) {
        int len;
        unsigned cp, min;
        if (!utf8_lead(*s, &len, &cp, &min))
            return false;
        for (int i = 1; i < len; ++i) {
            // The terminator of a cut-off sequence fails this test too.
            if ((s[i] & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (s[i] & 0x3F);
        }
        if (cp < min || cp >= 0x110000 || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        s += len;
    }
    return true;
}

int get_fs_id(const char* name)
{
    if (name == nullptr)
        return 0;
    for (const FS_ID* row = _fs_ids; row->name != nullptr; ++row) {
        if (strcmp(row->name, name) == 0)
            return row->id;
    }
    return 0;
}

bool get_dev_sys_path(const char* pDeviceName, char* pDevSysPath, unsigned long aDevSysPathLen)
{
    if (pDevSysPath == nullptr || aDevSysPathLen == 0 || pDeviceName == nullptr)
        return false;
    if (!is_plain_dev_name(pDeviceName)) {
        SLOGE("[%s, %d] ***E: not a block device name: '%s'\n", pDeviceName);
        return false;
    }
    char link[256];
    snprintf(link, sizeof(link), "/sys/block/%s/device", pDeviceName);
    char resolved[256] = {0};
    int rc = buffer_read_from_command(resolved, 255, "readlink -f %s", link);
    if (rc < 0) {
        SLOGE("[%s, %d] -- Could not determine link destination of '%s': %s(%d)\n", link, strerror(-rc), rc);
        return false;
    }
    // The first colon belongs to the USB interface directory (1-1:1.0); the
    // USB device directory ends at the '/' in front of it.
    char* colon = strchr(resolved, ':');
    if (colon != nullptr) {
        char* p = colon;
        while (p > resolved && *p != '/')
            --p;
        p[1] = '\0';
    }
    lum_strlcpy(pDevSysPath, resolved, aDevSysPathLen);
    return true;
}

AS_HD_DISK_TYPE get_dev_connection_type(const char* dev_path)
{
    if (dev_path == nullptr)
        return AS_HD_DISK_TYPE_NONE;
    if (strncmp(dev_path, "VEN", 3) == 0) {
        SLOGD("[%s, %d] pDev=%s / devConnType=AS_HD_DISK_TYPE_PTP\n", dev_path);
        return AS_HD_DISK_TYPE_PTP;
    }
    if (strncmp(dev_path, "/dev/", 5) != 0 || strlen(dev_path + 5) != 3)
        return AS_HD_DISK_TYPE_NONE;

    char sysPath[256];
    if (!get_dev_sys_path(dev_path + 5, sysPath, sizeof(sysPath))) {
        SLOGE("[%s, %d] ***E: GetDevSysPath() returned with error\n");
        return AS_HD_DISK_TYPE_NONE;
    }
    // Read for the log only: a USB disk counts as external whatever they say.
    char value[50];
    if (line_read_from_file(value, sizeof(value), "%s%s", sysPath, "idVendor") < 1)
        SLOGW("[%s, %d] ***E: reading idVendor\n");
    if (line_read_from_file(value, sizeof(value), "%s%s", sysPath, "idProduct") < 1)
        SLOGW("[%s, %d] ***E: reading idProduct\n");
    if (line_read_from_file(value, sizeof(value), "%s%s", sysPath, "product") < 1)
        SLOGW("[%s, %d] ***E: reading product\n");
    SLOGD("[%s, %d] rdbuf=%s / devConnType=%d\n", sysPath, AS_HD_DISK_TYPE_USB_EXTERNAL);
    return AS_HD_DISK_TYPE_USB_EXTERNAL;
}

namespace {

// Cuts a UTF-8 text of n bytes so that it fits size bytes with its
// terminator, never inside a character. Returns the bytes kept.
size_t utf8_fit(const char* text, size_t n, size_t size)
{
    if (n < size)
        return n;
    size_t keep = size - 1;
    while (keep > 0 && (static_cast<unsigned char>(text[keep]) & 0xC0) == 0x80)
        --keep;
    return keep;
}

// FAT labels are stored in GBK; they are shown in UTF-8. A label that does
// not convert is replaced by the partition's name (sda1).
void convert_fat_label(const char* pDeviceName, char* pLabel, int len)
{
    bool ok = false;
    iconv_t cd = iconv_open("UTF-8", AC_ENCODING_TYPE);
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        SLOGE("[%s, %d] iconv_open (%s) fail. errno=%s.\n", AC_ENCODING_TYPE, strerror(errno));
    } else {
        char out[128] = {0};
        char* in = pLabel;
        size_t inLeft = strlen(pLabel);
        char* outPtr = out;
        size_t outLeft = sizeof(out);
        size_t rc = iconv(cd, &in, &inLeft, &outPtr, &outLeft);
        int err = errno;
        iconv_close(cd);
        if (rc == static_cast<size_t>(-1)) {
            SLOGE("[%s, %d] iconv (%s) fail. errno=%s.\n", AC_ENCODING_TYPE, strerror(err));
        } else {
            size_t produced = sizeof(out) - outLeft;
            size_t keep = utf8_fit(out, produced, static_cast<size_t>(len));
            memcpy(pLabel, out, keep);
            pLabel[keep] = '\0';
            ok = true;
        }
    }
    const char* sd = strstr(pDeviceName, "sd");
    if (!ok && sd != nullptr) {
        strncpy(pLabel, sd, static_cast<size_t>(len) - 1);
        pLabel[len - 1] = '\0';
    }
}

}  // namespace

int get_label_for_dev_name(const char* pDeviceName, char* pLabel, int len)
{
    if (pDeviceName == nullptr) {
        SLOGE("[%s, %d] Param pDeviceName is NULL!\n");
        return -1;
    }
    if (pLabel == nullptr || len <= 0)
        return -1;
    char quoted[256];
    if (!quote_arg(pDeviceName, quoted, sizeof(quoted)))
        return -1;
    char buf[256] = {0};
    int ret = buffer_read_from_command(buf, sizeof(buf), "%s blkid -d | grep \"%s\" ", "", quoted);
    if (ret < 0) {
        SLOGE("[%s, %d] Get %s from system cmd blkid failed!\n", pDeviceName);
        return ret;
    }
    const char* pc = strstr(buf, "LABEL=\"");
    if (pc == nullptr) {
        SLOGE("[%s, %d] pc is null!\n");
    } else {
        const char* pc1 = strchr(pc + 7, '"');
        if (pc1 == nullptr || pc1 - pc >= len) {
            SLOGE("[%s, %d] pc1 is null!\n");
        } else {
            memcpy(pLabel, pc + 7, static_cast<size_t>(pc1 - pc - 7));
            ret = 0;
        }
    }
    if (strstr(buf, "TYPE=\"vfat\"") != nullptr)
        convert_fat_label(pDeviceName, pLabel, len);
    return ret;
}

int get_mount_path_of_device(const char* device, char* mount_buf, int buf_size)
{
    if (mount_buf == nullptr || buf_size < 1 || device == nullptr)
        return 0;
    char quoted[256];
    if (!quote_arg(device, quoted, sizeof(quoted)))
        return 0;
    char out[256] = {0};
    if (buffer_read_from_command(out, sizeof(out), "mount | grep \"%s*. on \" | grep shared", quoted) <= 0)
        return 0;
    char* eol = strchr(out, '\n');
    if (eol != nullptr)
        *eol = '\0';
    const char* on = strstr(out, " on ");
    const char* type = strstr(out, " type ");
    if (on == nullptr || type == nullptr || type < on + 4)
        return 0;
    size_t len = static_cast<size_t>(type - (on + 4));
    if (!lum_copy_span(mount_buf, static_cast<size_t>(buf_size), on + 4, len))
        return 0;
    return static_cast<int>(len);
}

int get_fs_type_callback(void* context, char* line)
{
    const char* p = strstr(line, "type");
    if (p == nullptr || strlen(p) < 5)
        return 1;
    const char* start = p + 5;
    const char* end = strchr(start, ' ');
    size_t len = end != nullptr ? static_cast<size_t>(end - start) : strlen(start);
    lum_copy_span(static_cast<char*>(context), 32, start, len);
    return 1;
}

int get_dev_name_for_uuid(const char* pStorageUuid, char* pDevName, int devNameLen)
{
    if (pStorageUuid == nullptr) {
        SLOGE("[%s, %d] params storageUuid is null!\n");
        return -1;
    }
    char quoted[256];
    if (!quote_arg(pStorageUuid, quoted, sizeof(quoted)))
        return -1;
    char buf[256] = {0};
    int ret = buffer_read_from_command(buf, sizeof(buf), "%s blkid | grep \"%s\" ", "", quoted);
    if (ret <= 0)
        return ret;
    const char* colon = strchr(buf, ':');
    if (colon == nullptr || pDevName == nullptr || devNameLen <= 0 ||
        !lum_copy_span(pDevName, static_cast<size_t>(devNameLen), buf, static_cast<size_t>(colon - buf))) {
        SLOGE("[%s, %d] Get dev name for uuid failed! \n");
        return ret;
    }
    return 0;
}

int get_dev_name_for_mount_point(const char* pMountPoint, char* pDevName, int devNameLen)
{
    if (pMountPoint == nullptr)
        return -1;
    char quoted[256];
    if (!quote_arg(pMountPoint, quoted, sizeof(quoted)))
        return -1;
    char buf[256] = {0};
    int ret = buffer_read_from_command(buf, sizeof(buf), "mount | grep \"%s\" ", quoted);
    if (ret > 0 && pDevName != nullptr) {
        const char* blank = strchr(buf, ' ');
        size_t len = blank != nullptr ? static_cast<size_t>(blank - buf) : strlen(buf);
        if (static_cast<long>(len) < devNameLen)
            memcpy(pDevName, buf, len);
    }
    return ret;
}

int get_uuid_for_dev_name(const char* pPath, char* pUuid, int uuidLen)
{
    if (pPath == nullptr)
        return -1;
    char quoted[256];
    if (!quote_arg(pPath, quoted, sizeof(quoted)))
        return -1;
    char buf[256] = {0};
    int ret = buffer_read_from_command(buf, sizeof(buf), "%s blkid | grep \"%s\" ", "", quoted);
    if (ret <= 0) {
        SLOGE("[%s, %d] Get buffer is failed!\n");
        return ret;
    }
    const char* pc = strstr(buf, "UUID=\"");
    if (pc == nullptr) {
        SLOGE("[%s, %d] pc is null!\n");
        return ret;
    }
    const char* pc1 = strchr(pc + 6, '"');
    if (pc1 == nullptr || pc1 - pc >= uuidLen || pUuid == nullptr) {
        SLOGE("[%s, %d] pc1 is null!\n");
        return ret;
    }
    memcpy(pUuid, pc + 6, static_cast<size_t>(pc1 - pc - 6));
    return 0;
}
