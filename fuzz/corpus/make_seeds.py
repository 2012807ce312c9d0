#!/usr/bin/env python3
"""Writes the seed inputs of every fuzz target into fuzz/corpus/<target>/.

Each seed is a small valid input of the kind the decoder meets: captured
tool lines, a uevent as the kernel sends it, a device table as the service
builds it, request Parcels of several commands. The files are committed;
run this again after changing a seed here.
"""
import os
import re
import struct

TOP = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    folder = os.path.join(TOP, target)
    os.makedirs(folder, exist_ok=True)
    if isinstance(data, str):
        data = data.encode()
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


# --- Parcel bytes: little-endian, every item padded to 4 bytes.

def pad(b):
    return b + b"\0" * (-len(b) % 4)


def i32(v):
    return struct.pack("<i", v)


def i64(v):
    return struct.pack("<q", v)


def cstr(s):
    return pad(s.encode() + b"\0")


def raw(b):
    return pad(b)


def command_index(name):
    """The command's place in include/StorageCmdList.h, the hub target's first byte."""
    with open(os.path.join(TOP, "..", "..", "include", "StorageCmdList.h")) as f:
        names = re.findall(r"X\((\w+), \d+,", f.read())
    return names.index(name)


def hub(name, seed, *items):
    write("hub", seed, bytes([command_index(name)]) + b"".join(items))


CLIENT_FD = 4  # the harness's client file: 0-2 are the standard streams, 3 the service's queue
hub("STORAGE_DEV_MOUNT", "mount", cstr("/dev/sdb1"))
hub("STORAGE_GET_DEVICE_SIZE", "device_size", cstr("/dev/sdb"), i32(9))
hub("STORAGE_SET_ALL_PARTITION", "format_all", cstr("sdb1"), i32(1))
hub("STORAGE_PVR_MARK_DEV", "pvr_mark", cstr("/mnt/pvr/shared/sdb1"), i32(1))
hub("STORAGE_READ_DIRS", "read_dirs", cstr("/mnt/pvr/shared/sdb1"), i32(21), i64(7), i32(8))
hub("STORAGE_SHUTDOWN", "shutdown", i32(1))
hub("STORAGE_SET_PVR_DEV_SIZE_LIMIT", "size_limit", i32(4000))
hub("STORAGE_EXTRACT_COVER", "cover", cstr("/tmp/a.mp3"), cstr("cover.jpg"))
hub("STORAGE_COPY", "copy", cstr("/tmp/a"), i32(14), raw(b"/tmp/a\0/tmp/b\0"))
hub("STORAGE_COPY_DIRS", "copy_dirs", cstr("/tmp/d/"), cstr("/tmp/e/"))
hub("STORAGE_DELETE_FILE", "delete_file", cstr("/tmp/client"), i32(12), i32(1))
hub("STORAGE_DELETE_DIR", "delete_dir", cstr("/tmp/d"), i32(0), i32(7))
hub("STORAGE_CREATE_DIR", "create_dir", cstr("/tmp/d"), i32(7))
hub("STORAGE_RENAME_FILE", "rename", cstr("/tmp/client"), cstr("/tmp/moved"), i32(0))
hub("STROAGE_LUM_MOVE", "move", cstr("/tmp/client"), cstr("/mnt/moved"), i32(1))
hub("STORAGE_WRITE_FILE", "write_file", cstr("/tmp/w"), i32(5), raw(b"hello"))
hub("STORAGE_LUM_EXE_SYS_CMD", "sys_cmd", i32(4), cstr("true"))
hub("STORAGE_LUM_EXE_SYS_CMD_RET", "sys_cmd_ret", cstr("echo hi"))
hub("STORAGE_LUM_CHMOD", "chmod", cstr("/tmp/client"), i32(0o600))
hub("STROAGE_LUM_OPEN", "open", cstr("/tmp/o"), i32(0o102), i32(0o644))
hub("STROAGE_LUM_READ", "read", i32(CLIENT_FD), i32(16))
hub("STROAGE_LUM_WRITE", "write", i32(CLIENT_FD), i32(3), raw(b"abc"))
hub("STORAGE_LUM_SYNC", "sync", i32(CLIENT_FD))
hub("STROAGE_LUM_CLOSE", "close", i32(CLIENT_FD))

# --- A uevent datagram: the header, then key=value strings, each with its NUL.

DISK = "/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/host6/target6:0:0/6:0:0:0/block/sdb"


def uevent(action, devpath, devtype, name, minor):
    keys = ["%s@%s" % (action, devpath), "ACTION=" + action, "DEVPATH=" + devpath, "SUBSYSTEM=block",
            "MAJOR=8", "MINOR=%d" % minor, "DEVNAME=" + name, "DEVTYPE=" + devtype, "SEQNUM=4711"]
    return "".join(k + "\0" for k in keys)


write("uevent", "add_disk", uevent("add", DISK, "disk", "sdb", 16))
write("uevent", "add_partition", uevent("add", DISK + "/sdb1", "partition", "sdb1", 17))
write("uevent", "remove_disk", uevent("remove", DISK, "disk", "sdb", 16))

# --- The device table's tagged bytes: tag, length (both big-endian), value.


def el(tag, value):
    return struct.pack(">HH", tag, len(value)) + value


def s(text):
    return text.encode() + b"\0"


def u32(v):
    return struct.pack(">I", v)


DEVICEENTRY, DEVICENODE, DEVICCONN, MOUNTPOINT, VOLUMENAME, FSTYPE = 1, 2, 3, 4, 5, 6
VENDOR, MODEL, SERIALNR, DEVICEID, DEVICESIZE, DEVICEUSED = 8, 9, 10, 11, 12, 13
info = el(VENDOR, s("SanDisk")) + el(MODEL, s("Cruzer Blade")) + el(SERIALNR, s("4C530001230911117025")) + \
    el(DEVICEID, u32(0x5A3C9E21))
disk = el(DEVICENODE, s("/dev/sdb")) + el(DEVICCONN, b"\x06") + el(DEVICESIZE, u32(7633)) + info
part = el(DEVICENODE, s("/dev/sdb1")) + el(DEVICCONN, b"\x00") + el(MOUNTPOINT, s("/mnt/pvr/shared/sdb1")) + \
    el(DEVICEUSED, u32(1201)) + el(FSTYPE, s("vfat")) + el(VOLUMENAME, s("STICK")) + el(DEVICESIZE, u32(7630))
mtp = el(DEVICENODE, s("VEN_04E8_PROD_6860")) + el(DEVICCONN, b"\x07") + el(DEVICESIZE, u32(0))
write("dev_table", "stick_and_phone", el(DEVICEENTRY, disk) + el(DEVICEENTRY, part) + el(DEVICEENTRY, mtp))
write("dev_table", "dev_info", info)

# --- Tool output for the line handlers; the first byte picks the handler.

BLKID = '/dev/sdb1: LABEL="STICK" UUID="1234-ABCD" BLOCK_SIZE="512" TYPE="vfat" PARTUUID="0a1b2c3d-01"\n' \
    '/dev/sdb2: UUID="0f6e1a2b-3c4d-4e5f-8a9b-0c1d2e3f4a5b" BLOCK_SIZE="4096" TYPE="ext4" PARTUUID="0a1b2c3d-02"\n'
MOUNT = "/dev/sdb1 on /mnt/pvr/shared/sdb1 type vfat (rw,relatime,fmask=0000,dmask=0000,codepage=437," \
    "iocharset=utf8,shortname=mixed,errors=remount-ro)\n"
MTP = "VEN_04E8_PROD_6860 on /mnt/pvr/shared/VEN_04E8_PROD_6860 type mptpfs (rw,relatime)\n"
DF = "Filesystem     1048576-blocks  Used Available Capacity Mounted on\n" \
    "/dev/sda1                7633  1201      6432      16% /mnt/pvr/shared/sda1\n"
PARTITIONS = "sdb\nsdb1\nsdb2\nVEN_04E8_PROD_6860 1 mptpdev\n"
LS = "-rw-r--r-- 1 root root 0 Nov 23 18:00 .202611230042.ide\n"
for index, (name, text) in enumerate([("blkid", BLKID), ("mount", MOUNT), ("mount_mtp", MTP), ("mount_type", MOUNT),
                                      ("df", DF), ("partitions", PARTITIONS), ("ls_identity", LS)]):
    write("lines", name, bytes([index]) + text.encode())

# --- Playlists.

write("playlist", "extended", "#EXTM3U\n#EXTINF:215,Artist - Title\n../music/song.mp3\n"
      "#EXTINF:-1,Radio\nhttp://radio.example/stream\n")
write("playlist", "windows", b"\xef\xbb\xbfC:\\Music\\a.mp3\r\nsub\\b.mp3\r\n\r\nafter_the_end.mp3\r\n")
write("playlist", "gbk", b"\xd5\x5c\xb8\xe8.mp3\nplain.mp3\n")

# --- Texts: labels and names.

write("utf8", "ascii", "STICK")
write("utf8", "umlaut", "\u00dcber")
write("utf8", "four_bytes", "\U0001F3B5 music")
write("utf8", "overlong", b"\xc0\xaf")

# --- copy_dir_name: the destination size (big-endian), then the name.

write("copy_dir_name", "listing", b"\x01\x04" + s("/mnt/pvr/shared/sdb1"))
write("copy_dir_name", "with_slash", b"\x01\x04" + s("/mnt/pvr/shared/sdb1/"))
write("copy_dir_name", "relative", b"\x00\x10" + s("sdb1"))

# --- Copy requests: src NUL dst NUL [type [flags values]].

write("copy_request", "file", b"/tmp/a.mp3\0/tmp/b.mp3\0")
write("copy_request", "tree", b"/tmp/d/\0/tmp/e/\0")
write("copy_request", "cut", b"/tmp/a.ts\0/tmp/b.ts\0\x03\x01\x02" + struct.pack(">ii", 1000, 5000))
write("copy_request", "pair", b"\x01/tmp/a\0/tmp/b\0")

# --- Listing records: intValue1, the command id, buf1 (path, NUL, flags).


def listing(seed, path, flags=None, cmd=7):
    buf = path.encode() + b"\0" + (bytes([flags]) if flags is not None else b"")
    write("read_dir", seed, struct.pack("<iH", len(buf), cmd) + buf)


listing("volume", "/mnt/pvr/shared/sdb1")
listing("playlist", "/mnt/pvr/shared/sdb1/list.m3u", 0)
listing("folder_no_tags", "/mnt/pvr/shared/sdb1/sub/", 8)
listing("folders_only", "/mnt/pvr/shared/sdb1/", 1)
