#!/usr/bin/env bash
# The demo: the storage service on a simulated television. A USB stick with a
# FAT partition (its label in GBK) and an ext4 partition is plugged in, the
# service mounts and announces both, a phone joins over MTP, the volumes are
# listed and measured, the PVR partition is chosen, the ext4 partition is
# formatted, and the stick is pulled out again. Everything the service says
# is printed as it comes. Run as root on Debian 12; installs what it needs.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD

if [ "$(id -u)" -ne 0 ]; then
  echo "demo.sh: the simulated television needs root" >&2
  exit 1
fi
bash scripts/install-deps.sh >/dev/null
echo "=== building"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target lumstoraged lumstoragectl lumrig_uevent_send lumrig_uevent_listen >/dev/null

rig=$top/rig/rig
ctl=$top/build/tools/lumstoragectl
work=$(mktemp -d)
id=""
watcher=""
cleanup() {
  [ -n "$watcher" ] && kill "$watcher" 2>/dev/null || true
  [ -n "$id" ] && "$rig" down "$id" >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

step() { printf '\n\033[1m=== %s\033[0m\n' "$*"; sleep 0.3; }
say() { "$ctl" --socket "$sock" "$@" || true; }
wait_for() { # event name, count
  for _ in $(seq 1200); do
    [ "$(grep -c "^$1 " "$work/events" || true)" -ge "$2" ] && return 0
    sleep 0.05
  done
  echo "demo: no $1" >&2
  return 1
}

step "a television with a USB stick not yet plugged in"
cat >"$work/tv.desc" <<'DESC'
disk stick size=256M table=msdos plugged=no vendor=SanDisk model="Cruzer Blade" serial=4C530001234
  part size=96M fs=vfat label=hex:D2F4C0D6
    file /music/song.txt text="a song"
  part fs=ext4 label=RECORDINGS
    file /recordings/news.ts size=2M
DESC
id=$("$rig" up --owner $$ "$work/tv.desc")
echo "television $id"
"$rig" exec "$id" -- sh -c 'mkdir -p /run/properties && printf 1 > /run/properties/persist.pvr.tshift.enable && printf 1 > /run/properties/persist.pvr.rec.enable && printf 100 > /run/properties/persist.pvr.device_size_limit'
"$rig" run "$id" --name lumstoraged -- env LMDROID_PROPERTY_DIR=/run/properties LUM_LOG_LEVEL=w \
  "$top/build/host/lumstoraged" --socket /run/lumstorage.sock >/dev/null
sock=$("$rig" path "$id" /run/lumstorage.sock)
for _ in $(seq 100); do [ -S "$sock" ] && break; sleep 0.05; done
: >"$work/events"
"$ctl" --socket "$sock" watch >"$work/events" 2>/dev/null &
watcher=$!
tail -n +1 -f "$work/events" --pid "$watcher" | grep --line-buffered -v 'GET_STORAGE_VOLUMES\|GET_DEV_TABLE\|^  ' |
  sed -u 's/^/  event: /' &
until grep -q GET_STORAGE_VOLUMES "$work/events" 2>/dev/null; do say get-storage-volumes >/dev/null; sleep 0.2; done

step "plugging in the stick (kernel uevents)"
"$rig" plug "$id" stick
wait_for LUM_TV_EVT_STORAGE_DEV_MOUNT_END 1

step "the volumes"
say volumes
say size /dev/sdb2
say partition-fs-type /mnt/pvr/shared/sdb1

step "the PVR partition and the guide for the user interface"
say pvr state
say pvr guide

step "a phone offered over MTP, mounted on request"
"$rig" mtp-add "$id" --id VEN_04E8_PID_6860_SER_R58M1 --name Galaxy --model SM-G973F >/dev/null
say mount VEN_04E8_PID_6860_SER_R58M1
say volumes

step "formatting the ext4 partition"
say format /dev/sdb2
"$rig" exec "$id" -- ls -a /mnt/pvr/shared/sdb2

step "pulling the stick out"
"$rig" unplug "$id" stick
wait_for LUM_TV_EVT_STORAGE_DEV_UMOUNT_END 2 || true
say volumes

step "done: tearing the television down"
