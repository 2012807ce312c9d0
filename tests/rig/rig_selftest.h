// What the self-tests of the simulated television share: the host's view
// (mounts, loop devices, processes), parsers of tool output, and a stick.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "rig_fixture.h"

namespace rig_selftest {

using lumrig::Result;
using lumrig::Rig;
using lumrig::RigTest;
using lumrig::Shell;
using lumrig::Tv;
using ::testing::HasSubstr;
using ::testing::Not;

inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

inline bool WaitFor(const std::function<bool()>& pred, int timeout_ms) {
  for (int waited = 0; waited <= timeout_ms; waited += 25) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  return false;
}

// The host's mount table: "mount point, type, source" of every mount.
inline std::multiset<std::string> HostMounts() {
  std::multiset<std::string> out;
  for (const auto& l : Lines(lumrig::ReadFile("/proc/self/mountinfo"))) {
    std::istringstream f(l);
    std::vector<std::string> w;
    for (std::string x; f >> x;) w.push_back(x);
    auto dash = std::find(w.begin(), w.end(), "-");
    if (w.size() < 5 || dash == w.end() || dash + 2 >= w.end()) continue;
    out.insert(w[4] + " " + *(dash + 1) + " " + *(dash + 2));
  }
  return out;
}

inline std::multiset<std::string> HostLoops() {
  Result r = lumrig::Run({"losetup", "-a"});
  auto l = Lines(r.out);
  return {l.begin(), l.end()};
}

// blkid's KEY="VALUE" output: device -> key -> value.
inline std::map<std::string, std::map<std::string, std::string>> ParseBlkid(const std::string& out) {
  std::map<std::string, std::map<std::string, std::string>> devs;
  for (const auto& l : Lines(out)) {
    auto colon = l.find(':');
    if (colon == std::string::npos) continue;
    auto& keys = devs[l.substr(0, colon)];
    size_t p = colon + 1;
    while ((p = l.find('=', p)) != std::string::npos) {
      size_t ks = l.rfind(' ', p);
      std::string key = l.substr(ks + 1, p - ks - 1);
      size_t ve = l.find('"', p + 2);
      keys[key] = l.substr(p + 2, ve - p - 2);
      p = ve + 1;
    }
  }
  return devs;
}

// Messages printed by uevent_listen, split into their lines.
inline std::vector<std::vector<std::string>> Uevents(const std::string& log) {
  std::vector<std::vector<std::string>> msgs;
  std::vector<std::string> cur;
  for (const auto& l : Lines(log)) {
    if (l.empty()) {
      if (!cur.empty()) msgs.push_back(cur);
      cur.clear();
    } else {
      cur.push_back(l);
    }
  }
  if (!cur.empty()) msgs.push_back(cur);
  return msgs;
}

// Starts argv with stdout and stderr going to `out`; returns its pid.
inline pid_t Spawn(const std::vector<std::string>& argv, const std::string& out) {
  pid_t pid = fork();
  if (pid == 0) {
    int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) _exit(126);
    dup2(fd, 1);
    dup2(fd, 2);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

// True while process `pid` runs (a zombie has ended).
inline bool Alive(const std::string& pid) {
  std::string stat = lumrig::ReadFile("/proc/" + pid + "/stat");
  auto close_paren = stat.rfind(')');
  return close_paren != std::string::npos && close_paren + 2 < stat.size() && stat[close_paren + 2] != 'Z';
}

// Processes rooted inside television `id` (they see its marker /.rig/id).
inline int ProcessesInside(const std::string& id) {
  int n = 0;
  DIR* d = opendir("/proc");
  if (!d) return -1;
  while (dirent* e = readdir(d)) {
    if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
    std::string marker = lumrig::ReadFile(std::string("/proc/") + e->d_name + "/root/.rig/id");
    if (marker == id + "\n") n++;
  }
  closedir(d);
  return n;
}

inline bool Has(const std::vector<std::string>& msg, const std::string& line) {
  return std::find(msg.begin(), msg.end(), line) != msg.end();
}

inline int CountOf(const std::string& text, const std::string& what) {
  int n = 0;
  for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) n++;
  return n;
}

const char kStick[] =
    "# a USB stick: FAT and ext4\n"
    "disk stick size=128M vendor=SanDisk model=\"Cruzer Blade\" idVendor=0781 idProduct=5567 "
    "serial=4C530001 manufacturer=SanDisk product=\"Cruzer Blade\"\n"
    "  part size=32M fs=vfat label=STICK\n"
    "    file /readme.txt text=\"hello from the stick\"\n"
    "  part fs=ext4 label=DATA\n"
    "    file /movies/clip.txt text=clip\n";

const char kUsbPath[] = "/sys/devices/platform/ehci-platform.0/usb1/1-1/1-1:1.0/host6/target6:0:0/6:0:0:0";

}  // namespace rig_selftest
