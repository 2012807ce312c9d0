// Self-tests of the simulated television (rig/rig): the disks, file systems,
// adapters, uevents and MTP devices it offers, checked with the real tools.
// They need root; without it each one is skipped with the reason shown.
#include "rig_selftest.h"

namespace {

using namespace rig_selftest;

// ------------------------------------------------------------ disks

TEST_F(RigTest, StickIsListedByBlkidAndShapedLikeAUsbDisk) {
  Result up = tv.Up(kStick);
  ASSERT_TRUE(up.ok()) << up.Describe();

  Result b = tv.Exec("blkid -d");
  ASSERT_TRUE(b.ok()) << b.Describe();
  auto devs = ParseBlkid(b.out);
  ASSERT_EQ(devs.count("/dev/sdb1"), 1u) << b.out;
  ASSERT_EQ(devs.count("/dev/sdb2"), 1u) << b.out;
  EXPECT_EQ(devs["/dev/sdb1"]["TYPE"], "vfat");
  EXPECT_EQ(devs["/dev/sdb1"]["LABEL"], "STICK");
  EXPECT_EQ(devs["/dev/sdb2"]["TYPE"], "ext4");
  EXPECT_EQ(devs["/dev/sdb2"]["LABEL"], "DATA");

  // /proc/partitions names the sdX devices with their sizes (1K blocks).
  Result p = tv.Exec("cat /proc/partitions");
  EXPECT_THAT(p.out, HasSubstr(" 131072 sdb\n"));
  EXPECT_THAT(p.out, HasSubstr("  32768 sdb1\n"));
  EXPECT_THAT(p.out, HasSubstr(" sdb2\n"));
  Result ds = tv.Exec("awk '{print $3}' /proc/diskstats");
  EXPECT_EQ(ds.out, "sdb\nsdb1\nsdb2\n");

  // The nodes carry the numbers sysfs gives for them.
  Result n = tv.Exec("for d in sdb sdb1 sdb2; do printf '%d:%d ' 0x$(stat -c %t /dev/$d) 0x$(stat -c %T /dev/$d); "
                     "cat /sys/class/block/$d/dev; done");
  for (const auto& l : Lines(n.out)) {
    std::istringstream f(l);
    std::string node, sys;
    f >> node >> sys;
    EXPECT_EQ(node, sys) << l;
  }

  // The USB-shaped sysfs: device link, SCSI and USB attributes.
  Result s = tv.Exec("readlink -f /sys/block/sdb/device");
  EXPECT_EQ(s.out, std::string(kUsbPath) + "\n");
  Result attrs = tv.Exec(
      "d=$(readlink -f /sys/block/sdb/device); u=${d%%:*}; u=${u%/*}; echo $u; "
      "cat $d/vendor $d/model $u/idVendor $u/idProduct $u/product $u/serial $u/manufacturer "
      "/sys/block/sdb/removable /sys/block/sdb/sdb1/partition");
  EXPECT_EQ(attrs.out,
            "/sys/devices/platform/ehci-platform.0/usb1/1-1\n"
            "SanDisk \nCruzer Blade    \n0781\n5567\nCruzer Blade\n4C530001\nSanDisk\n1\n1\n")
      << attrs.Describe();

  // lsblk walks the same tree.
  Result l = tv.Exec("lsblk -rno NAME,TYPE,RM");
  EXPECT_EQ(l.out, "sdb disk 1\nsdb1 part 1\nsdb2 part 1\n") << l.Describe();
}

TEST_F(RigTest, GbkAndOtherLabelsComeBackByteForByte) {
  Result up = tv.Up(
      "disk cn size=64M\n"
      "  part size=16M fs=vfat label=hex:D6D0CEC4\n"
      "  part size=16M fs=vfat fat=12 label=hex:C4E3BAC3CAC0BDE7\n"
      "  part size=16M fs=ext4 label=hex:E4B8ADE69687\n"
      "  part fs=ntfs label=\"Filme 2024\"\n");
  ASSERT_TRUE(up.ok()) << up.Describe();
  auto label = [&](const std::string& dev) {
    return tv.Exec("blkid -o value -s LABEL " + dev + " | od -An -v -tx1 | tr -d ' \\n'").out;
  };
  EXPECT_EQ(label("/dev/sdb1"), "d6d0cec40a");
  EXPECT_EQ(label("/dev/sdb2"), "c4e3bac3cac0bde70a");
  EXPECT_EQ(label("/dev/sdb3"), "e4b8ade696870a");
  EXPECT_EQ(tv.Exec("blkid -o value -s LABEL /dev/sdb4").out, "Filme 2024\n");
  // The FAT volumes stay usable.
  Result m = tv.Exec("mkdir -p /mnt/a && mount /dev/sdb1 /mnt/a && echo x > /mnt/a/x && umount /mnt/a && "
                     "mount -t vfat /dev/sdb2 /mnt/a && umount /mnt/a");
  EXPECT_TRUE(m.ok()) << m.Describe();
}

// ------------------------------------------------------------ mounting

TEST_F(RigTest, Ext4MountsForRealAndDfSeesIt) {
  Result up = tv.Up(kStick);
  ASSERT_TRUE(up.ok()) << up.Describe();
  Result m = tv.Exec(
      "mkdir -p /mnt/pvr/shared/sdb2 && mount -t ext4 -w /dev/sdb2 /mnt/pvr/shared/sdb2 && "
      "cat /mnt/pvr/shared/sdb2/movies/clip.txt && echo new > /mnt/pvr/shared/sdb2/new.txt && mount && df -Pm");
  ASSERT_TRUE(m.ok()) << m.Describe();
  EXPECT_THAT(m.out, HasSubstr("clip"));
  EXPECT_THAT(m.out, HasSubstr("/dev/sdb2 on /mnt/pvr/shared/sdb2 type ext4 (rw"));
  bool df_line = false;
  for (const auto& l : Lines(m.out)) {
    if (l.rfind("/dev/sdb2 ", 0) == 0 && l.find(" on ") == std::string::npos &&
        l.find(" /mnt/pvr/shared/sdb2") != std::string::npos) {
      std::istringstream f(l);
      std::string dev;
      long size = 0;
      f >> dev >> size;
      EXPECT_GT(size, 80) << l;
      EXPECT_LT(size, 100) << l;
      df_line = true;
    }
  }
  EXPECT_TRUE(df_line) << m.out;
  // The kernel wrote the file: an independent reader finds it on the volume.
  ASSERT_TRUE(tv.Exec("umount /mnt/pvr/shared/sdb2").ok());
  EXPECT_EQ(tv.Exec("debugfs -R 'cat /new.txt' /dev/sdb2 2>/dev/null").out, "new\n");
}

TEST_F(RigTest, NtfsMountsThroughNtfs3gAsFuseblk) {
  Result up = tv.Up(
      "disk hdd size=256M table=gpt vendor=WD model=Elements idVendor=1058 idProduct=2621\n"
      "  part fs=ntfs label=Movies\n"
      "    file /films/a.txt text=\"a film\"\n");
  ASSERT_TRUE(up.ok()) << up.Describe();
  Result m = tv.Exec(
      "mkdir -p /mnt/pvr/shared/sdb1 && ntfs-3g -o rw,nls=utf8 /dev/sdb1 /mnt/pvr/shared/sdb1 && "
      "cat /mnt/pvr/shared/sdb1/films/a.txt && echo; echo written > /mnt/pvr/shared/sdb1/w.txt && mount && df -Pm");
  ASSERT_TRUE(m.ok()) << m.Describe();
  EXPECT_THAT(m.out, HasSubstr("a film\n"));
  EXPECT_THAT(m.out, HasSubstr("/dev/sdb1 on /mnt/pvr/shared/sdb1 type fuseblk"));
  EXPECT_THAT(m.out, HasSubstr("/dev/sdb1 "));
  ASSERT_TRUE(tv.Exec("umount /mnt/pvr/shared/sdb1").ok());
  EXPECT_EQ(tv.Exec("ntfscat /dev/sdb1 /w.txt").out, "written\n");
  // mount -t ntfs goes through the real helper of ntfs-3g as well.
  Result m2 = tv.Exec("mount -t ntfs /dev/sdb1 /mnt/pvr/shared/sdb1 && mount | grep sdb1");
  EXPECT_THAT(m2.out, HasSubstr("type fuseblk")) << m2.Describe();
}

TEST_F(RigTest, FatAdapterShowsVfatAndTheKernelsRefusalStaysReachable) {
  Result up = tv.Up(kStick);
  ASSERT_TRUE(up.ok()) << up.Describe();
  // Type given, and type probed (as the service mounts).
  Result m = tv.Exec(
      "mkdir -p /mnt/a /mnt/b && mount -t vfat -o rw,utf8 /dev/sdb1 /mnt/a && cat /mnt/a/readme.txt && echo && "
      "echo fat > /mnt/a/f.txt && umount /mnt/a && mount -w -o rw,utf8,shortname=mixed /dev/sdb1 /mnt/b && "
      "cat /mnt/b/f.txt && mount && echo -- && mount -t vfat && echo -- && grep /mnt/b /proc/self/mountinfo");
  ASSERT_TRUE(m.ok()) << m.Describe();
  EXPECT_THAT(m.out, HasSubstr("hello from the stick\n"));
  EXPECT_THAT(m.out, HasSubstr("fat\n"));
  EXPECT_THAT(m.out, HasSubstr("/dev/sdb1 on /mnt/b type vfat (rw"));
  auto parts = Lines(m.out);
  auto first = std::find(parts.begin(), parts.end(), "--");
  ASSERT_NE(first, parts.end());
  ASSERT_NE(first + 1, parts.end());
  EXPECT_THAT(*(first + 1), HasSubstr("/dev/sdb1 on /mnt/b type vfat"));
  EXPECT_EQ(*(first + 2), "--") << "mount -t vfat lists only the FAT mount";
  // Underneath it is fusefat, and the rig's own mounts are not listed.
  EXPECT_THAT(m.out, HasSubstr(" - fuseblk.vfat /dev/sdb1 "));
  EXPECT_THAT(m.out, Not(HasSubstr(" on /.rig/")));
  ASSERT_TRUE(tv.Exec("umount /mnt/b").ok());
  EXPECT_TRUE(tv.Exec("fsck.fat -n /dev/sdb1").ok());

  // A FAT volume is refused for other types, like the kernel does.
  Result wrong = tv.Exec("mount -t vfat /dev/sdb2 /mnt/a");
  EXPECT_EQ(wrong.status, 32) << wrong.Describe();

  // Adapter off: the kernel's own answer.
  ASSERT_TRUE(tv.Cmd("fat-adapter", {"off"}).ok());
  Result off = tv.Exec("mount -t vfat /dev/sdb1 /mnt/a");
  EXPECT_EQ(off.status, 32);
  EXPECT_THAT(off.err, HasSubstr("mount: /mnt/a: unknown filesystem type 'vfat'"));
  ASSERT_TRUE(tv.Cmd("fat-adapter", {"on"}).ok());
  Result env_off = tv.Exec("LUMRIG_FAT_ADAPTER=off mount /dev/sdb1 /mnt/a");
  EXPECT_THAT(env_off.err, HasSubstr("unknown filesystem type 'vfat'"));
  EXPECT_TRUE(tv.Exec("mount /dev/sdb1 /mnt/a && umount /mnt/a").ok());
}

TEST_F(RigTest, ExfatIsDetectedButThisKernelCannotMountIt) {
  Result up = tv.Up("disk x size=64M\n  part fs=exfat label=EXF\n");
  ASSERT_TRUE(up.ok()) << up.Describe();
  auto devs = ParseBlkid(tv.Exec("blkid /dev/sdb1").out);
  EXPECT_EQ(devs["/dev/sdb1"]["TYPE"], "exfat");
  EXPECT_EQ(devs["/dev/sdb1"]["LABEL"], "EXF");
  Result m = tv.Exec("mkdir -p /mnt/x && mount -t exfat /dev/sdb1 /mnt/x");
  EXPECT_NE(m.status, 0);
  EXPECT_THAT(m.err, HasSubstr("unknown filesystem type 'exfat'"));
}

// ------------------------------------------------------------ repair

TEST_F(RigTest, RepairToolsFixTheFixableDamageOnly) {
  Result up = tv.Up(
      "disk d size=160M\n"
      "  part size=32M fs=ext4 label=EFIX damage=fixable\n"
      "  part size=32M fs=ext4 label=EBAD damage=unfixable\n"
      "  part size=32M fs=ntfs label=NFIX damage=fixable\n"
      "  part fs=ntfs label=NBAD damage=unfixable\n");
  ASSERT_TRUE(up.ok()) << up.Describe();
  // All four still look like what they are.
  auto devs = ParseBlkid(tv.Exec("blkid -d").out);
  EXPECT_EQ(devs["/dev/sdb1"]["TYPE"], "ext4");
  EXPECT_EQ(devs["/dev/sdb2"]["TYPE"], "ext4");
  EXPECT_EQ(devs["/dev/sdb3"]["LABEL"], "NFIX");
  EXPECT_EQ(devs["/dev/sdb4"]["LABEL"], "NBAD");

  // ext4: e2fsck -n finds errors, -y fixes them (exit 1), then it is clean.
  EXPECT_EQ(tv.Exec("e2fsck -fn /dev/sdb1").status, 4);
  EXPECT_EQ(tv.Exec("e2fsck -fy /dev/sdb1").status, 1);
  EXPECT_EQ(tv.Exec("e2fsck -fn /dev/sdb1").status, 0);
  // ... and the unfixable one stays beyond repair.
  Result bad = tv.Exec("e2fsck -fy /dev/sdb2");
  EXPECT_GE(bad.status, 4) << bad.Describe();
  EXPECT_GE(tv.Exec("e2fsck -fy /dev/sdb2").status, 4);

  // NTFS: ntfs-3g refuses, ntfsfix repairs, then it mounts.
  EXPECT_NE(tv.Exec("mkdir -p /mnt/n && ntfs-3g /dev/sdb3 /mnt/n").status, 0);
  EXPECT_TRUE(tv.Exec("ntfsfix /dev/sdb3").ok());
  EXPECT_TRUE(tv.Exec("ntfs-3g /dev/sdb3 /mnt/n && umount /mnt/n").ok());
  EXPECT_NE(tv.Exec("ntfsfix /dev/sdb4").status, 0);
  EXPECT_NE(tv.Exec("ntfs-3g /dev/sdb4 /mnt/n").status, 0);
}

// ------------------------------------------------------------ uevents

TEST_F(RigTest, InjectedUeventReachesGroup1InsideAndNoSocketOutside) {
  Result up = tv.Up(kStick);
  ASSERT_TRUE(up.ok()) << up.Describe();
  const std::string mark = "lumrig-mark-" + std::to_string(getpid());
  const std::string tools = tv.StateDir() + "/tools";
  // A listener on the host, bound to group 1 like the service's socket.
  pid_t host_pid = Spawn({tools + "/uevent_listen", "--match", mark, "--timeout", "3000", "--ready",
                          tv.StateDir() + "/host.ready"},
                         tv.StateDir() + "/host.out");
  ASSERT_GT(host_pid, 0);
  ASSERT_TRUE(tv.Start("listen", {"/.rig/state/tools/uevent_listen", "--match", mark, "--count", "2",
                                  "--timeout", "10000", "--ready", "/run/listen.ready"})
                  .ok());
  ASSERT_TRUE(WaitFor([&] { return lumrig::Exists(tv.HostPath("/run/listen.ready")); }, 5000));
  ASSERT_TRUE(WaitFor([&] { return lumrig::Exists(tv.StateDir() + "/host.ready"); }, 5000));

  // The kernel's way (the kernel re-broadcasts it: sender port 0, its SEQNUM)
  // and the direct way (sendto group 1).
  Result k = tv.Cmd("uevent", {"add@/devices/virtual/" + mark + "/k", "ACTION=add", "SUBSYSTEM=lumrig"});
  ASSERT_TRUE(k.ok()) << k.Describe();
  Result d = tv.Cmd("uevent", {"--direct", "change@/devices/virtual/" + mark + "/d", "ACTION=change"});
  ASSERT_TRUE(d.ok()) << d.Describe();

  ASSERT_TRUE(WaitFor([&] { return CountOf(tv.Log("listen"), "# portid=") == 2; }, 5000)) << tv.Log("listen");
  auto msgs = Uevents(tv.Log("listen"));
  ASSERT_EQ(msgs.size(), 2u);
  EXPECT_EQ(msgs[0][0], "# portid=0 uid=0");
  EXPECT_EQ(msgs[0][1], "add@/devices/virtual/" + mark + "/k");
  EXPECT_TRUE(Has(msgs[0], "ACTION=add"));
  EXPECT_TRUE(Has(msgs[0], "SUBSYSTEM=lumrig"));
  EXPECT_EQ(msgs[0].back().rfind("SEQNUM=", 0), 0u) << "the kernel appends SEQNUM last";
  EXPECT_NE(msgs[1][0], "# portid=0 uid=0") << "direct sends carry the sender's port";
  EXPECT_EQ(msgs[1][1], "change@/devices/virtual/" + mark + "/d");
  EXPECT_EQ(msgs[1].back().rfind("SEQNUM=", 0), 0u);

  // The host listener heard nothing of it.
  int st = 0;
  waitpid(host_pid, &st, 0);
  EXPECT_EQ(lumrig::ReadFile(tv.StateDir() + "/host.out"), "");
  EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 3) << "host listener exit status " << st;
}

TEST_F(RigTest, PlugAndUnplugUpdateProcSysDevAndSendTheKernelsEvents) {
  Result up = tv.Up(std::string(kStick) + "disk late size=64M plugged=no\n  part fs=ext4 label=LATE\n");
  ASSERT_TRUE(up.ok()) << up.Describe();
  EXPECT_EQ(tv.Exec("ls /sys/block").out, "sdb\n");

  auto listen = [&](const std::string& name, int count) {
    ASSERT_TRUE(tv.Start(name, {"/.rig/state/tools/uevent_listen", "--count", std::to_string(count), "--timeout",
                                "15000", "--ready", "/run/" + name + ".ready"})
                    .ok());
    ASSERT_TRUE(WaitFor([&] { return lumrig::Exists(tv.HostPath("/run/" + name + ".ready")); }, 5000));
  };

  // Unplug the stick: partitions go first, then the disk.
  listen("ev1", 3);
  Result un = tv.Unplug("stick");
  ASSERT_TRUE(un.ok()) << un.Describe();
  EXPECT_EQ(un.out, "sdb\n");
  ASSERT_TRUE(WaitFor([&] { return CountOf(tv.Log("ev1"), "# portid=") == 3; }, 5000)) << tv.Log("ev1");
  auto gone = Uevents(tv.Log("ev1"));
  const std::string devpath = std::string(kUsbPath).substr(4) + "/block/sdb";
  EXPECT_EQ(gone[0][1], "remove@" + devpath + "/sdb2");
  EXPECT_EQ(gone[1][1], "remove@" + devpath + "/sdb1");
  EXPECT_EQ(gone[2][1], "remove@" + devpath);
  EXPECT_TRUE(Has(gone[2], "ACTION=remove"));
  EXPECT_TRUE(Has(gone[2], "DEVPATH=" + devpath));
  EXPECT_TRUE(Has(gone[2], "SUBSYSTEM=block"));
  EXPECT_TRUE(Has(gone[2], "DEVNAME=sdb"));
  EXPECT_TRUE(Has(gone[2], "DEVTYPE=disk"));
  EXPECT_TRUE(Has(gone[0], "DEVTYPE=partition"));
  EXPECT_TRUE(Has(gone[0], "PARTN=2"));
  Result after = tv.Exec("cat /proc/partitions; ls /dev | grep '^sd'; ls /sys/block; blkid -d; true");
  EXPECT_EQ(after.out, "major minor  #blocks  name\n\n") << after.Describe();

  // Plug the other disk: it becomes sdb, on the next SCSI host.
  listen("ev2", 2);
  Result pl = tv.Plug("late");
  ASSERT_TRUE(pl.ok()) << pl.Describe();
  EXPECT_EQ(pl.out, "sdb\n");
  ASSERT_TRUE(WaitFor([&] { return CountOf(tv.Log("ev2"), "# portid=") == 2; }, 5000)) << tv.Log("ev2");
  auto came = Uevents(tv.Log("ev2"));
  const std::string late =
      "/devices/platform/ehci-platform.0/usb1/1-2/1-2:1.0/host7/target7:0:0/7:0:0:0/block/sdb";
  EXPECT_EQ(came[0][1], "add@" + late);
  EXPECT_TRUE(Has(came[0], "DEVTYPE=disk"));
  EXPECT_EQ(came[1][1], "add@" + late + "/sdb1");
  EXPECT_TRUE(Has(came[1], "DEVNAME=sdb1"));
  EXPECT_TRUE(Has(came[1], "PARTN=1"));
  EXPECT_EQ(tv.Exec("blkid -o value -s LABEL /dev/sdb1").out, "LATE\n");
  EXPECT_EQ(tv.Exec("readlink -f /sys/block/sdb/device").out,
            "/sys/devices/platform/ehci-platform.0/usb1/1-2/1-2:1.0/host7/target7:0:0/7:0:0:0\n");

  // The stick comes back as sdc, with its files.
  listen("ev3", 3);
  Result back = tv.Plug("stick");
  ASSERT_TRUE(back.ok()) << back.Describe();
  EXPECT_EQ(back.out, "sdc\n");
  ASSERT_TRUE(WaitFor([&] { return CountOf(tv.Log("ev3"), "# portid=") == 3; }, 5000));
  Result files = tv.Exec("mkdir -p /mnt/s && mount /dev/sdc2 /mnt/s && cat /mnt/s/movies/clip.txt");
  EXPECT_EQ(files.out, "clip");
  EXPECT_EQ(tv.Exec("awk 'NR > 2 {print $4}' /proc/partitions").out, "sdb\nsdb1\nsdc\nsdc1\nsdc2\n");
}

TEST_F(RigTest, RepartitionedDiskIsSeenAfterSync) {
  Result up = tv.Up("disk d size=64M\n  part fs=ext4\n");
  ASSERT_TRUE(up.ok()) << up.Describe();
  Result p = tv.Exec("printf 'label: dos\\nsize=16MiB, type=c\\ntype=83\\n' | sfdisk -q /dev/sdb");
  ASSERT_TRUE(p.ok()) << p.Describe();
  ASSERT_TRUE(tv.Cmd("sync").ok());
  Result f = tv.Exec("mkfs.fat -n NEWFAT /dev/sdb1");
  ASSERT_TRUE(f.ok()) << f.Describe();
  EXPECT_EQ(tv.Exec("awk 'NR > 2 {print $4}' /proc/partitions").out, "sdb\nsdb1\nsdb2\n");
  EXPECT_EQ(tv.Exec("blkid -o value -s LABEL /dev/sdb1").out, "NEWFAT\n");
  EXPECT_EQ(tv.Exec("cat /sys/block/sdb/sdb2/partition").out, "2\n");
}

// ------------------------------------------------------------ MTP

TEST_F(RigTest, MtpDeviceIsOfferedMountedAsMptpfsAndRemoved) {
  Result up = tv.Up(kStick);
  ASSERT_TRUE(up.ok()) << up.Describe();
  char dir[] = "/tmp/lumrig-phone-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  ASSERT_TRUE(Shell(std::string("mkdir -p ") + dir + "/DCIM/Camera && echo jpeg > " + dir +
                    "/DCIM/Camera/IMG_0001.jpg")
                  .ok());
  const std::string id = "VEN_04E8&PID_6860&SER_R58M12345";
  Result add = tv.Cmd("mtp-add", {"--id", id, "--name", "Galaxy S10", "--model", "SM-G973F", "--files", dir});
  Shell(std::string("rm -rf ") + dir);
  ASSERT_TRUE(add.ok()) << add.Describe();
  EXPECT_EQ(add.out, "0\n");
  EXPECT_EQ(tv.Exec("cat /proc/driver/mptp/devices").out, id + " 0\n");
  EXPECT_EQ(tv.Exec("cat /proc/driver/mptp/0/id /proc/driver/mptp/0/name /proc/driver/mptp/0/model "
                    "/proc/driver/mptp/0/mount")
                .out,
            id + "\nGalaxy S10\nSM-G973F\n0\n");
  Result m = tv.Exec("mkdir -p /mnt/pvr/shared/mtp0 && mount -t mptpfs '" + id +
                     "' /mnt/pvr/shared/mtp0 && cat /mnt/pvr/shared/mtp0/DCIM/Camera/IMG_0001.jpg && mount");
  ASSERT_TRUE(m.ok()) << m.Describe();
  EXPECT_THAT(m.out, HasSubstr("jpeg\n"));
  EXPECT_THAT(m.out, HasSubstr(id + " on /mnt/pvr/shared/mtp0 type mptpfs ("));
  EXPECT_EQ(CountOf(m.out, "type mptpfs"), 1) << m.out;
  EXPECT_EQ(tv.Exec("cat /proc/driver/mptp/0/mount").out, "1\n");
  Result none = tv.Exec("mount -t mptpfs VEN_0000 /mnt/pvr/shared/mtp0");
  EXPECT_EQ(none.status, 32);

  ASSERT_TRUE(tv.Exec("umount /mnt/pvr/shared/mtp0").ok());
  EXPECT_EQ(tv.Exec("cat /proc/driver/mptp/0/mount").out, "0\n");
  ASSERT_TRUE(tv.Cmd("mtp-remove", {"0"}).ok());
  EXPECT_EQ(tv.Exec("cat /proc/driver/mptp/devices; ls /proc/driver/mptp").out, "devices\n");
  EXPECT_NE(tv.Exec("mount -t mptpfs '" + id + "' /mnt/pvr/shared/mtp0").status, 0);
}

}  // namespace
