// The simulated television leaves nothing behind: after a teardown, after everything that could clean up died
// at once, and after a description that cannot be built. What the rig builds (disks, tools, uevents, the MTP
// stand-in) is proved by the service's own tests on it.
#include <dirent.h>

#include <sstream>

#include "rig_fixture.h"

namespace {
using lumrig::Result;
using lumrig::Rig;
using lumrig::RigTest;

// Mount points and sources of the host ("point source" lines).
std::multiset<std::string> HostMounts() {
  std::multiset<std::string> out;
  std::istringstream in(lumrig::ReadFile("/proc/self/mountinfo"));
  for (std::string line; std::getline(in, line);) {
    std::istringstream f(line);
    std::vector<std::string> w;
    for (std::string x; f >> x;) w.push_back(x);
    if (w.size() > 8) out.insert(w[4] + " " + w[w.size() - 2]);
  }
  return out;
}

// Loop devices backed by an image of the television (other tests may hold loop devices of their own meanwhile).
std::string LoopsOf(const std::string& id) {
  return lumrig::Run({"sh", "-c", "losetup -a | grep -F \"$0\" || true", lumrig::RunDir() + "/" + id + "/"}).out;
}

int ProcessesInside(const std::string& id) {
  int n = 0;
  DIR* d = opendir("/proc");
  while (dirent* e = d ? readdir(d) : nullptr) {
    if (e->d_name[0] >= '0' && e->d_name[0] <= '9' &&
        lumrig::ReadFile(std::string("/proc/") + e->d_name + "/root/.rig/id") == id + "\n")
      n++;
  }
  if (d) closedir(d);
  return n;
}

const char kDisks[] =
    "disk stick size=64M\n  part size=24M fs=vfat label=STICK\n  part fs=ext4 label=DATA\n"
    "disk hdd size=48M table=gpt\n  part fs=ntfs label=H\n";

TEST_F(RigTest, TeardownLeavesNoMountLoopDeviceOrProcessEvenWhenBusy) {
  auto mounts = HostMounts();
  Result up = tv.Up(kDisks);
  ASSERT_TRUE(up.ok()) << up.Describe();
  const std::string id = tv.id();
  // Busy: ext4, FAT (fusefat) and NTFS (ntfs-3g) mounted, a shell sitting in a mounted folder.
  ASSERT_TRUE(tv.Exec("mkdir -p /mnt/a /mnt/b /mnt/c && mount /dev/sdb2 /mnt/a && mount /dev/sdb1 /mnt/b && "
                      "ntfs-3g /dev/sdc1 /mnt/c")
                  .ok());
  ASSERT_TRUE(tv.Start("busy", {"/bin/sh", "-c", "cd /mnt/c && exec sleep 600"}).ok());
  EXPECT_NE(LoopsOf(id), "");
  EXPECT_EQ(HostMounts(), mounts) << "the rig mounts nothing on the host";
  ASSERT_TRUE(tv.Down().ok());
  EXPECT_EQ(LoopsOf(id), "");
  EXPECT_EQ(HostMounts(), mounts);
  EXPECT_FALSE(lumrig::Exists(lumrig::RunDir() + "/" + id));
  EXPECT_EQ(ProcessesInside(id), 0);
}

TEST_F(RigTest, LeftoversOfACrashedRunGoWithTheNextUp) {
  pid_t owner = fork();
  ASSERT_GE(owner, 0);
  if (owner == 0) {
    execlp("sleep", "sleep", "600", static_cast<char*>(nullptr));
    _exit(127);
  }
  Result up = Rig({"up", "--owner", std::to_string(owner), "-"}, kDisks);
  ASSERT_TRUE(up.ok()) << up.Describe();
  const std::string id = up.out.substr(0, up.out.find('\n'));
  const std::string state = lumrig::RunDir() + "/" + id;
  ASSERT_TRUE(Rig({"exec", id, "--", "/bin/sh", "-c", "mkdir -p /mnt/n && ntfs-3g /dev/sdc1 /mnt/n"}).ok());
  // Everything that could clean up dies at once: owner, watchdog, holder.
  kill(std::stoi(lumrig::ReadFile(state + "/watchdog")), SIGKILL);
  kill(std::stoi(lumrig::ReadFile(state + "/holder")), SIGKILL);
  kill(owner, SIGKILL);
  waitpid(owner, nullptr, 0);
  ASSERT_TRUE(lumrig::Exists(state)) << "nothing cleaned up yet";
  Result next = tv.Up(kDisks);
  ASSERT_TRUE(next.ok()) << next.Describe();
  EXPECT_FALSE(lumrig::Exists(state));
  EXPECT_EQ(LoopsOf(id), "");
  EXPECT_EQ(ProcessesInside(id), 0);
  EXPECT_EQ(tv.Exec("blkid -o value -s LABEL /dev/sdb2").out, "DATA\n");
}

TEST_F(RigTest, UnbuildableDescriptionsFailNamingDiskAndStepAndCleanUp) {
  const struct {
    const char *description, *disk, *step;
  } kCases[] = {
      {"disk big size=64M\n  part size=100M fs=ext4\n", "big", "partition table"},
      {"disk ok size=8M\n  part fs=ext4\n    file /x text=1\ndisk lab size=8M\n  part fs=vfat label=WAYTOOLONGLABEL\n",
       "lab", "mkfs (partition 1, vfat)"},
      {"disk ex size=8M\n  part fs=exfat\n    file /a text=1\n", "ex", "files (partition 1, exfat)"},
      {"disk fs size=8M\n  part fs=btrfs\n", "fs", "description"},
      {"disk sz size=lots\n", "sz", "description"},
      {"disk f size=8M\n  part fs=ext4\n    file /x from=/nonexistent/lumrig/file\n", "f", "description"},
      {"disk two size=8M table=none\n  part fs=ext4\n  part fs=ext4\n", "two", "description"},
  };
  auto mounts = HostMounts();
  int i = 0;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.description);
    const std::string id = "lumrig-bad-" + std::to_string(getpid()) + "-" + std::to_string(i++);
    Result r = Rig({"up", "--id", id, "--owner", std::to_string(getpid()), "-"}, c.description);
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find(std::string("disk '") + c.disk + "'"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(std::string("step '") + c.step), std::string::npos) << r.err;
    EXPECT_FALSE(lumrig::Exists(lumrig::RunDir() + "/" + id));
    EXPECT_EQ(LoopsOf(id), "");
    EXPECT_EQ(HostMounts(), mounts);
  }
}

}  // namespace
