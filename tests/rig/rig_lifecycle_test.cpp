// Self-tests of the simulated television (rig/rig): its private namespaces,
// a daemon inside them, and teardown after success, owner death, crashes and
// failed builds. They need root; without it each one is skipped with the
// reason shown.
#include <sys/socket.h>
#include <sys/un.h>

#include "rig_selftest.h"

namespace {

using namespace rig_selftest;

// ------------------------------------------------------------ namespaces, daemon

TEST_F(RigTest, DaemonRunsInsideThePrivateNamespacesAndItsSocketIsReachable) {
  Result up = tv.Up(kStick);
  ASSERT_TRUE(up.ok()) << up.Describe();
  std::string sock = tv.StartDaemon("echo", {LUMRIG_ECHO_DAEMON, "--socket", "/run/echo.sock"}, "/run/echo.sock");
  ASSERT_FALSE(sock.empty()) << tv.Log("echo");

  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  ASSERT_LT(sock.size(), sizeof(addr.sun_path));
  std::strcpy(addr.sun_path, sock.c_str());
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0) << std::strerror(errno);
  ASSERT_EQ(write(fd, "ping\n", 5), 5);
  char buf[512] = {};
  ssize_t n = read(fd, buf, sizeof(buf) - 1);
  close(fd);
  ASSERT_GT(n, 0);
  std::string reply(buf, static_cast<size_t>(n));
  char self_mnt[128] = {}, self_net[128] = {};
  ASSERT_GT(readlink("/proc/self/ns/mnt", self_mnt, sizeof(self_mnt) - 1), 0);
  ASSERT_GT(readlink("/proc/self/ns/net", self_net, sizeof(self_net) - 1), 0);
  Result ns = tv.Exec("readlink /proc/self/ns/mnt /proc/self/ns/net /proc/self/ns/ipc");
  auto inside = Lines(ns.out);
  ASSERT_EQ(inside.size(), 3u);
  EXPECT_EQ(reply, "ping mnt=" + inside[0] + " net=" + inside[1] + "\n");
  EXPECT_NE(inside[0], self_mnt);
  EXPECT_NE(inside[1], self_net);
  char self_ipc[128] = {};
  ASSERT_GT(readlink("/proc/self/ns/ipc", self_ipc, sizeof(self_ipc) - 1), 0);
  EXPECT_NE(inside[2], self_ipc);

  // A fresh mqueue of its own IPC namespace, /dev/shm, and the middleware's mkntfs.
  Result mq = tv.Exec("mount | grep -E ' on /dev/(mqueue|shm) '; ls -A /dev/mqueue");
  EXPECT_THAT(mq.out, HasSubstr("mqueue on /dev/mqueue type mqueue"));
  EXPECT_THAT(mq.out, HasSubstr(" on /dev/shm type tmpfs"));
  Result mk = tv.Exec("/lumicore/middleware/bin/mkntfs -Q -F -L FRESH /dev/sdb1 >/dev/null && blkid /dev/sdb1");
  EXPECT_THAT(mk.out, HasSubstr("LABEL=\"FRESH\"")) << mk.Describe();
  EXPECT_THAT(mk.out, HasSubstr("TYPE=\"ntfs\""));

  // Stopping it, and taking the television down, leave no process behind.
  std::string pid_line = lumrig::ReadFile(tv.StateDir() + "/procs/echo");
  ASSERT_TRUE(tv.Stop("echo").ok());
  EXPECT_FALSE(Alive(pid_line.substr(0, pid_line.find(' '))));
  ASSERT_FALSE(tv.Start("echo2", {LUMRIG_ECHO_DAEMON, "--socket", "/run/echo2.sock"}).out.empty());
  std::string pid2 = lumrig::ReadFile(tv.StateDir() + "/procs/echo2");
  ASSERT_TRUE(Alive(pid2.substr(0, pid2.find(' '))));
  ASSERT_TRUE(tv.Down().ok());
  EXPECT_FALSE(Alive(pid2.substr(0, pid2.find(' '))));
}

// ------------------------------------------------------------ teardown

TEST_F(RigTest, TeardownLeavesLoopDevicesAndMountsAsTheyWere) {
  auto loops = HostLoops();
  auto mounts = HostMounts();
  Result up = tv.Up(std::string(kStick) + "disk hdd size=128M table=gpt\n  part fs=ntfs label=H\n");
  ASSERT_TRUE(up.ok()) << up.Describe();
  const std::string state = tv.StateDir();
  const std::string id = tv.id();
  EXPECT_GE(ProcessesInside(id), 1);
  // Busy: ext4, FAT (fusefat) and NTFS (ntfs-3g) mounted, a daemon, a shell
  // sitting in a mounted folder.
  ASSERT_TRUE(tv.Exec("mkdir -p /mnt/a /mnt/b /mnt/c && mount /dev/sdb2 /mnt/a && mount /dev/sdb1 /mnt/b && "
                      "ntfs-3g /dev/sdc1 /mnt/c")
                  .ok());
  ASSERT_TRUE(tv.Start("busy", {"/bin/sh", "-c", "cd /mnt/c && exec sleep 600"}).ok());
  EXPECT_NE(HostLoops(), loops);
  EXPECT_EQ(HostMounts(), mounts) << "the rig mounts nothing on the host";

  Result down = tv.Down();
  ASSERT_TRUE(down.ok()) << down.Describe();
  EXPECT_EQ(HostLoops(), loops);
  EXPECT_EQ(HostMounts(), mounts);
  EXPECT_FALSE(lumrig::Exists(state));
  EXPECT_EQ(ProcessesInside(id), 0);
}

TEST_F(RigTest, OwnerDeathTakesTheTelevisionDown) {
  auto loops = HostLoops();
  pid_t owner = fork();
  ASSERT_GE(owner, 0);
  if (owner == 0) {
    execlp("sleep", "sleep", "600", static_cast<char*>(nullptr));
    _exit(127);
  }
  Result up = Rig({"up", "--owner", std::to_string(owner), "-"}, kStick);
  ASSERT_TRUE(up.ok()) << up.Describe();
  const std::string state = lumrig::RunDir() + "/" + up.out.substr(0, up.out.find('\n'));
  ASSERT_TRUE(lumrig::Exists(state));
  kill(owner, SIGKILL);
  waitpid(owner, nullptr, 0);
  EXPECT_TRUE(WaitFor([&] { return !lumrig::Exists(state); }, 20000)) << "still there: " << state;
  EXPECT_EQ(HostLoops(), loops);
}

TEST_F(RigTest, CrashedRunIsCleanedUpAndTheNextRunWorks) {
  auto loops = HostLoops();
  auto mounts = HostMounts();
  pid_t owner = fork();
  ASSERT_GE(owner, 0);
  if (owner == 0) {
    execlp("sleep", "sleep", "600", static_cast<char*>(nullptr));
    _exit(127);
  }
  Result up = Rig({"up", "--owner", std::to_string(owner), "-"},
                  "disk hdd size=96M\n  part size=48M fs=ntfs\n  part fs=ext4\n");
  ASSERT_TRUE(up.ok()) << up.Describe();
  const std::string id = up.out.substr(0, up.out.find('\n'));
  const std::string state = lumrig::RunDir() + "/" + id;
  ASSERT_TRUE(Rig({"exec", id, "--", "/bin/sh", "-c",
                   "mkdir -p /mnt/n /mnt/e && ntfs-3g /dev/sdb1 /mnt/n && mount /dev/sdb2 /mnt/e"})
                  .ok());
  // Everything that could clean up dies at once: owner, watchdog, holder.
  std::string holder = lumrig::ReadFile(state + "/holder");
  std::string watchdog = lumrig::ReadFile(state + "/watchdog");
  kill(std::stoi(watchdog), SIGKILL);
  kill(std::stoi(holder), SIGKILL);
  kill(owner, SIGKILL);
  waitpid(owner, nullptr, 0);
  ASSERT_TRUE(lumrig::Exists(state)) << "nothing cleaned up yet";

  // The next run right away works, and takes the leftovers with it.
  Result next = tv.Up(kStick);
  ASSERT_TRUE(next.ok()) << next.Describe();
  EXPECT_FALSE(lumrig::Exists(state));
  EXPECT_EQ(tv.Exec("blkid -o value -s LABEL /dev/sdb2").out, "DATA\n");
  ASSERT_TRUE(tv.Down().ok());
  EXPECT_EQ(HostLoops(), loops);
  EXPECT_EQ(HostMounts(), mounts);
  EXPECT_EQ(ProcessesInside(id), 0);
}

// ------------------------------------------------------------ bad input

TEST_F(RigTest, UnbuildableDescriptionsFailNamingDiskAndStepAndCleanUp) {
  struct Case {
    std::string description, disk, step;
  };
  const std::vector<Case> cases = {
      {"disk big size=64M\n  part size=100M fs=ext4\n", "big", "partition table"},
      {"disk ok size=64M\n  part fs=ext4 label=OK\n    file /x text=1\n"
       "disk lab size=64M\n  part fs=vfat label=WAYTOOLONGLABEL\n",
       "lab", "mkfs (partition 1, vfat)"},
      {"disk ex size=64M\n  part fs=exfat\n    file /a text=1\n", "ex", "files (partition 1, exfat)"},
      {"disk fs size=64M\n  part fs=btrfs\n", "fs", "description"},
      {"disk sz size=lots\n", "sz", "description"},
      {"disk f size=64M\n  part fs=ext4\n    file /x from=/nonexistent/lumrig/file\n", "f", "description"},
      {"disk two size=64M table=none\n  part fs=ext4\n  part fs=ext4\n", "two", "description"},
  };
  auto loops = HostLoops();
  auto mounts = HostMounts();
  int i = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.description);
    const std::string id = "lumrig-bad-" + std::to_string(getpid()) + "-" + std::to_string(i++);
    Result r = Rig({"up", "--id", id, "--owner", std::to_string(getpid()), "-"}, c.description);
    EXPECT_NE(r.status, 0);
    EXPECT_THAT(r.err, HasSubstr("disk '" + c.disk + "'"));
    EXPECT_THAT(r.err, HasSubstr("step '" + c.step));
    EXPECT_FALSE(lumrig::Exists(lumrig::RunDir() + "/" + id));
    EXPECT_EQ(HostLoops(), loops);
    EXPECT_EQ(HostMounts(), mounts);
  }
}

}  // namespace
