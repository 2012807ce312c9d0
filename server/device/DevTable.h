// The device table: every block device, partition and MTP/PTP device as a
// tagged byte buffer (m_DevTabBuf) and as rows (m_ConnectedDevice), and the
// device-information elements that answer a single device's query.
//
// Encoding: elements back to back, no alignment; an element is a 2-byte tag,
// a 2-byte value length (header not counted) and the value. All numbers are
// big-endian. A string is stored with its NUL, which the length counts.
#pragma once

#include <cstdint>

#include "StorageDevice.h"

typedef enum {
    DEVICEENTRY = 0x0001,  // container: the elements of one device row
    DEVICENODE = 0x0002,   // string: /dev/sda1, or the MTP device id
    DEVICCONN = 0x0003,    // one byte: AS_HD_DISK_TYPE
    MOUNTPOINT = 0x0004,   // string
    VOLUMENAME = 0x0005,   // string, at most 99 characters
    FSTYPE = 0x0006,       // string, at most 31 characters
    VENDOR = 0x0008,       // string
    MODEL = 0x0009,        // string
    SERIALNR = 0x000A,     // string
    DEVICEID = 0x000B,     // 32-bit number: CRC of the serial number
    DEVICESIZE = 0x000C,   // 32-bit number: MB
    DEVICEUSED = 0x000D,   // 32-bit number: MB
} EDevTabTag;

#define DEV_TAB_ELEMENT_HEADER 4
// Vendor, model and serial number are each read into 256 bytes.
#define DEV_INFO_READ_LEN 256
// The most add_dev_info writes: three strings of up to 255 characters with
// their NUL, and the 4-byte device id, each with its header.
#define DEV_INFO_MAX_LEN (3 * (DEV_TAB_ELEMENT_HEADER + DEV_INFO_READ_LEN) + DEV_TAB_ELEMENT_HEADER + 4)

// Labels of the connection types, indexed by the DEVICCONN value.
extern const char con_name[8][9];

// Write cursor of a table build, the context of get_dev_table_callback.
// Entries are appended whole or not at all: once one does not fit, it and
// every later line are only counted, so the table holds the devices in the
// probes' order up to the first one that did not fit.
typedef struct {
    unsigned char* pos;        // first free byte
    unsigned char* end;        // one past the last byte of the table
    int dropped;               // lines whose entry was left out
} SDevTabCursor;

// CRC-32, polynomial 0x04C11DB7, most significant bit first, no reflection,
// no final XOR; crc is the starting value. Only the low 32 bits are used.
unsigned long crc32_be(unsigned long crc, const unsigned char* p, unsigned long len);

// The serial number of a device: the driver's "id" of MTP slot mptpDevNr for
// "VEN..." names, else the "serial" file of the USB device of /dev/sdX.
// True when a non-empty line was read into pSerial.
bool get_dev_serial_nr(const char* pDeviceName, int mptpDevNr, char* pSerial, unsigned long aSerialBufLen);

// Writes VENDOR, MODEL, SERIALNR and DEVICEID at pSendBuf (at most
// DEV_INFO_MAX_LEN bytes). Returns the bytes written; 0 for a name that is
// neither "VEN..." nor "/dev/sd...", or when the serial number cannot be
// read (the bytes written so far then mean nothing).
int add_dev_info(const char* pDeviceName, int mptpDevNr, unsigned char* pSendBuf);

// Logs the elements of add_dev_info's output; stops at an element that runs
// past len.
void trace_dev_info(const unsigned char* buf, int len);

// Line handler of the table build: one DEVICEENTRY for one line of the block
// device probe ("sda1") or of the MTP probe (driver line + " mptpdev").
// context is an SDevTabCursor. Returns 0 to go on, -1 for a null cursor.
int get_dev_table_callback(void* context, char* line);

// Reads len bytes of DEVICEENTRY elements (the table behind its leading zero
// byte) into rows, at most maxRows of them, and logs the table. Never reads
// outside buf[0..len). Returns the number of rows filled.
int parse_dev_table(const unsigned char* buf, int len, SConnectedDevice* rows, int maxRows);
