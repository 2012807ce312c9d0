// Reading the device table back: the rows of m_ConnectedDevice out of the
// tagged buffer, and the logs of the table and of device information. The
// buffers may come damaged (a client's, a cut one): no element is read past
// the bytes it was given.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "ByteOrder.h"
#include "DevIdentify.h"
#include "DevTable.h"
#include "ServiceLog.h"
#include "StrUtil.h"

const char con_name[8][9] = {
    "-", "HDDEdwa", "HDDAsdd", "USBAsdd", "HDD Int", "USB Int", "USB Ext", "PTP",
};

namespace {

constexpr int kTextLen = 256;       // every string of a row fits 256 bytes
constexpr int kLogLineLen = 1024;
constexpr int kLabelProbeLen = 100;

// Copies a string value of n bytes, up to its first NUL, into text (size
// bytes), cut to fit: the value of a damaged table need not be terminated.
void value_text(char* text, size_t size, const unsigned char* value, size_t n)
{
    size_t len = strnlen(reinterpret_cast<const char*>(value), n);
    if (len >= size)
        len = size - 1;
    memcpy(text, value, len);
    text[len] = '\0';
}

// One element inside [buf, buf + len) at off; false when its header or its
// value would run past len.
struct SElement {
    unsigned tag;
    int len;
    const unsigned char* value;
};

bool next_element(const unsigned char* buf, int len, int off, SElement* e)
{
    if (len - off < DEV_TAB_ELEMENT_HEADER)
        return false;
    e->tag = get_be16(buf + off);
    e->len = static_cast<int>(get_be16(buf + off + 2));
    e->value = buf + off + DEV_TAB_ELEMENT_HEADER;
    return e->len <= len - off - DEV_TAB_ELEMENT_HEADER;
}

// A string child of an entry: present or not, and its text.
struct SText {
    bool present;
    char text[kTextLen];
};

void take_text(SText* t, const SElement& e)
{
    t->present = true;
    value_text(t->text, sizeof(t->text), e.value, static_cast<size_t>(e.len));
}

// The values of one DEVICEENTRY as its children give them.
struct SEntryValues {
    SText node, fs, label, mount, vendor, model, serial;
    unsigned char conn;
    uint32_t id, size, used;
};

void read_children(const unsigned char* buf, int len, SEntryValues* v)
{
    int off = 0;
    SElement e;
    while (off < len) {
        if (!next_element(buf, len, off, &e)) {
            SLOGW("[%s, %d] ***W: element runs past the end of its container - ignoring the rest\n");
            return;
        }
        // Node, connection, type, label and mount path: the first occurrence
        // wins, a later one is reported and ignored.
        switch (e.tag) {
        case DEVICENODE:
            if (v->node.present)
                SLOGW("[%s, %d] ***W: multiple DEVICENODE tags in one container - ignoring\n");
            else
                take_text(&v->node, e);
            break;
        case DEVICCONN:
            // A value of 0 counts as not set yet.
            if (v->conn != 0)
                SLOGW("[%s, %d] ***W: multiple DEVICCONN tags in one container - ignoring\n");
            else if (e.len >= 1)
                v->conn = e.value[0];
            break;
        case FSTYPE:
            if (v->fs.present)
                SLOGW("[%s, %d] ***W: multiple FSTYPE tags in one container - ignoring\n");
            else
                take_text(&v->fs, e);
            break;
        case VOLUMENAME:
            if (v->label.present)
                SLOGW("[%s, %d] ***W: multiple VOLUMENAME tags in one container - ignoring\n");
            else
                take_text(&v->label, e);
            break;
        case MOUNTPOINT:
            if (v->mount.present)
                SLOGW("[%s, %d] ***W: multiple MOUNTPOINT tags in one container - ignoring\n");
            else
                take_text(&v->mount, e);
            break;
        // Vendor, model and serial number: the last occurrence wins.
        case VENDOR: take_text(&v->vendor, e); break;
        case MODEL: take_text(&v->model, e); break;
        case SERIALNR: take_text(&v->serial, e); break;
        case DEVICEID:
            if (e.len == 4)
                v->id = get_be32(e.value);
            break;
        case DEVICESIZE:
            if (e.len == 4)
                v->size = get_be32(e.value);
            break;
        case DEVICEUSED:
            if (e.len == 4)
                v->used = get_be32(e.value);
            break;
        default: break;
        }
        off += DEV_TAB_ELEMENT_HEADER + e.len;
    }
}

// Appends to a log line of kLogLineLen bytes; a line that grows too long is cut.
void append(char* line, size_t* used, const char* format, ...) __attribute__((format(printf, 3, 4)));
void append(char* line, size_t* used, const char* format, ...)
{
    if (*used >= kLogLineLen - 1)
        return;
    va_list args;
    va_start(args, format);
    int n = vsnprintf(line + *used, kLogLineLen - *used, format, args);
    va_end(args);
    if (n < 0)
        return;
    *used += static_cast<size_t>(n);
    if (*used > kLogLineLen - 1)
        *used = kLogLineLen - 1;
}

const char* shown(const SText& t)
{
    return t.present ? t.text : "-";
}

void log_row(const SEntryValues& v)
{
    char line[kLogLineLen];
    size_t used = 0;
    // A value beyond the label table comes only from a damaged table.
    const char* conn = v.conn < 8 ? con_name[v.conn] : "?";
    append(line, &used, "%-23s | %-7s | %-6s | %-12s | %-41s | %9ld | %9ld | ", shown(v.node), conn, shown(v.fs),
           shown(v.label), shown(v.mount), static_cast<long>(v.size), static_cast<long>(v.used));
    for (const SText* t : {&v.vendor, &v.model, &v.serial}) {
        if (t->present)
            append(line, &used, "%s, ", t->text);
    }
    if (v.conn > 0)
        append(line, &used, "devID=0x%.8X", static_cast<unsigned>(v.id));
    SLOGI("[%s, %d] %s\n", line);
}

void fill_row(const SEntryValues& v, SConnectedDevice* row)
{
    lum_strlcpy(row->devName, v.node.text, sizeof(row->devName));
    row->devConnectionType = v.conn;
    if (v.fs.present)
        lum_strlcpy(row->fsType, v.fs.text, sizeof(row->fsType));
    if (v.mount.present)
        lum_strlcpy(row->mountPoint, v.mount.text, sizeof(row->mountPoint));
    row->devSize = v.size;
    row->devUsedSize = v.used;
    if (v.vendor.present)
        lum_strlcpy(row->devVendor, v.vendor.text, sizeof(row->devVendor));
    if (v.model.present)
        lum_strlcpy(row->devModel, v.model.text, sizeof(row->devModel));
    if (v.serial.present)
        lum_strlcpy(row->devSerialNr, v.serial.text, sizeof(row->devSerialNr));
    row->devId = v.id;
    // The row's label is the volume's own, converted as for a mount (FAT
    // labels from GBK), not the raw text of the table.
    if (v.label.present) {
        char label[kLabelProbeLen] = {0};
        get_label_for_dev_name(row->devName, label, sizeof(label));
        lum_strlcpy(row->volumeName, label, sizeof(row->volumeName));
    }
    row->pvrDirFound = LUM_FALSE;
}

void clear_row(SConnectedDevice* row)
{
    row->devName[0] = '\0';
    row->mountPoint[0] = '\0';
    row->fsType[0] = '\0';
    row->devVendor[0] = '\0';
    row->devModel[0] = '\0';
    row->devSerialNr[0] = '\0';
    row->volumeName[0] = '\0';
    row->devConnectionType = 0;
    row->devId = 0;
    row->devSize = 0;
    row->devUsedSize = 0;
    row->pvrDirFound = LUM_FALSE;
}

#define DEV_TAB_DASHES \
    "[%s, %d] ------------------------+---------+--------+--------------+-------------------------------------------+-----------+----------------\n"

}  // namespace

int parse_dev_table(const unsigned char* buf, int len, SConnectedDevice* rows, int maxRows)
{
    SLOGI("[%s, %d]  device                 | connect | fstype | label        | mountpoint                                | size (MB) | size used (MB) \n");
    SLOGI(DEV_TAB_DASHES);
    if (buf == nullptr || len < 0)
        len = 0;
    if (rows == nullptr || maxRows < 0)
        maxRows = 0;
    for (int i = 0; i < maxRows; ++i)
        clear_row(&rows[i]);

    int count = 0;
    int off = 0;
    SElement e;
    while (off < len && count < maxRows) {
        if (!next_element(buf, len, off, &e)) {
            SLOGW("[%s, %d] ***W: element runs past the end of dev table - ignoring the rest\n");
            break;
        }
        if (e.tag != DEVICEENTRY) {
            SLOGW("[%s, %d] ***W: unexpected tag (%02x%02x) in top level of dev table\n", buf[off], buf[off + 1]);
        } else {
            SEntryValues v;
            memset(&v, 0, sizeof(v));
            read_children(e.value, e.len, &v);
            if (!v.node.present) {
                SLOGW("[%s, %d] ***W: top level entry does not contain DEVICENODE tag - ignoring\n");
            } else {
                log_row(v);
                fill_row(v, &rows[count]);
                ++count;
            }
        }
        off += DEV_TAB_ELEMENT_HEADER + e.len;
    }
    SLOGI(DEV_TAB_DASHES);
    return count;
}

void trace_dev_info(const unsigned char* buf, int len)
{
    if (buf == nullptr)
        return;
    int off = 0;
    SElement e;
    while (off < len) {
        if (!next_element(buf, len, off, &e)) {
            SLOGW("[%s, %d] ***W: element runs past the end of dev info - ignoring the rest\n");
            return;
        }
        char text[kTextLen];
        switch (e.tag) {
        case VENDOR:
            value_text(text, sizeof(text), e.value, static_cast<size_t>(e.len));
            SLOGD("[%s, %d]   VENDOR  =%s\n", text);
            break;
        case MODEL:
            value_text(text, sizeof(text), e.value, static_cast<size_t>(e.len));
            SLOGD("[%s, %d]   MODEL   =%s\n", text);
            break;
        case SERIALNR:
            value_text(text, sizeof(text), e.value, static_cast<size_t>(e.len));
            SLOGD("[%s, %d]   SERIALNR=%s\n", text);
            break;
        case DEVICEID:
            SLOGD("[%s, %d]   DEVICEID=0x%08lx\n", e.len == 4 ? static_cast<unsigned long>(get_be32(e.value)) : 0ul);
            break;
        default:
            SLOGW("[%s, %d] ***W: unexpected tag (%02x%02x) in dev info\n", buf[off], buf[off + 1]);
            break;
        }
        off += DEV_TAB_ELEMENT_HEADER + e.len;
    }
}
