#!/usr/bin/env bash
# Plug-in latency on the simulated television: from the injected uevent of a
# stick with one ext4 partition to LUM_TV_EVT_STORAGE_DEV_MOUNT_END, against
# the floor that the commands of such a run set: the same command lines,
# taken from the service's verbose log, replayed by a plain shell loop on the
# same television in the same run. Prints figures, asserts nothing. Root.
#
# usage: bench/bench_plugin.sh [BUILD_DIR] [ROUNDS]
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=bench/rig_service.sh
source "$top/bench/rig_service.sh"
rig_service_args 10 "$@"
RIG_SERVICE_ENV="LUM_LOG_LEVEL=v" rig_service_up 'disk stick size=64M table=msdos plugged=no\n  part fs=ext4 label=BENCH\n'

dev=$("$rig" plug "$id" stick --quiet | head -n1)
devpath=$("$rig" exec "$id" -- readlink -f "/sys/block/$dev")
devpath=${devpath#/sys}
inject() { "$rig" uevent "$id" "$1@$devpath" "ACTION=$1" SUBSYSTEM=block "DEVNAME=$dev" DEVTYPE=disk >/dev/null; }

# What injecting costs by itself: an event the service ignores.
t0=$(ms); for _ in $(seq 5); do inject change; done; t1=$(ms)
inject_ms=$(( (t1 - t0) / 5 ))

# One run at verbose log level gives the command lines of a plug-in; the
# timed runs are those of a daemon started again at its ordinary level.
lines=$(wc -l <"$log")
inject add; wait_count LUM_TV_EVT_STORAGE_DEV_MOUNT_END 1
tail -n +"$((lines + 1))" "$log" | sed -n 's/.* \[call_system, [0-9]*\] run: //p' >"$work/cmds"
RIG_SERVICE_ENV="" rig_service_restart
# The restarted service mounts the present stick by itself: take it down.
wait_count LUM_TV_EVT_STORAGE_DEV_MOUNT_END 1
ctl dev-umount "/dev/$dev"; wait_count LUM_TV_EVT_STORAGE_DEV_UMOUNT_END 1

service=()
mounted=1 unmounted=1
for _ in $(seq "$rounds"); do
  t0=$(ms); inject add; mounted=$((mounted + 1)); wait_count LUM_TV_EVT_STORAGE_DEV_MOUNT_END "$mounted"; t1=$(ms)
  service+=($(( t1 - t0 - inject_ms )))
  unmounted=$((unmounted + 1)); ctl dev-umount "/dev/$dev"; wait_count LUM_TV_EVT_STORAGE_DEV_UMOUNT_END "$unmounted"
done

# The floor: the same command lines, one shell each, on the same volume.
cp "$work/cmds" "$("$rig" path "$id" /run/replay.cmds)"
replay='while IFS= read -r line; do sh -c "$line" >/dev/null 2>&1; done </run/replay.cmds'
undo="umount /mnt/pvr/shared/${dev}1 2>/dev/null; rmdir /mnt/pvr/shared/${dev}1 2>/dev/null; true"
t0=$(ms); for _ in $(seq 5); do "$rig" exec "$id" -- true; done; t1=$(ms)
exec_ms=$(( (t1 - t0) / 5 ))
floor=()
for _ in $(seq "$rounds"); do
  "$rig" exec "$id" -- sh -c "$undo"
  t0=$(ms); "$rig" exec "$id" -- sh -c "$replay"; t1=$(ms)
  floor+=($(( t1 - t0 - exec_ms )))
done

s=$(median "${service[@]}"); f=$(median "${floor[@]}")
echo "plug-in latency, uevent to LUM_TV_EVT_STORAGE_DEV_MOUNT_END, one ext4 partition ($rounds rounds)"
echo "  service           median ${s} ms   (all: ${service[*]})"
echo "  command floor     median ${f} ms   (all: ${floor[*]})"
awk -v s="$s" -v f="$f" 'BEGIN { if (f > 0) printf "  ratio             %.2f   (target: within 1.20)\n", s / f }'
echo "  shell lines per run: $(wc -l <"$work/cmds") (each an sh with its pipeline)"
