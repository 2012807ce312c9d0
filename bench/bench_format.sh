#!/usr/bin/env bash
# Format on the simulated television: a 256 MB ext4 partition on a recording
# television, from the STORAGE_DEV_FORMAT request to LUM_TV_EVT_STORAGE_FORMAT
# (unmount run, "mkfs.ext4 -T largefile", sync, mount run, size query),
# against the tool alone, "mkfs.ext4 -T largefile" on the same device in the
# same run. Also the tool's share inside the service's run, from the
# service's log. Prints figures, asserts nothing. Root.
#
# usage: bench/bench_format.sh [BUILD_DIR] [ROUNDS]
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=bench/rig_service.sh
source "$top/bench/rig_service.sh"
rig_service_args 5 "$@"

# A recording television: the format table's "ext2" row, mkfs.ext4.
RIG_SERVICE_PROPS="persist.pvr.rec.enable=1" RIG_SERVICE_ENV="LUM_LOG_LEVEL=v" \
  rig_service_up 'disk stick size=257M table=msdos plugged=no\n  part fs=ext4 label=BENCH\n'

dev=$("$rig" plug "$id" stick | head -n1)
wait_count LUM_TV_EVT_STORAGE_DEV_MOUNT_END 1
part=/dev/${dev}1
size=$("$rig" exec "$id" -- sh -c "echo \$(( \$(blockdev --getsize64 $part) >> 20 ))")

# Milliseconds between the first log line holding $2 and the next one holding
# $3, both after line $1 of the service's log.
log_span() {
  tail -n +"$(( $1 + 1 ))" "$log" | awk -v a="$2" -v b="$3" '
    function t(s) { split(s, p, ":"); return (p[1] * 3600 + p[2] * 60 + p[3]) * 1000 }
    index($0, a) && !s { s = t($2); next }
    index($0, b) && s { printf "%d\n", t($2) - s; exit }'
}

service=() tool_in=()
for r in $(seq "$rounds"); do
  lines=$(wc -l <"$log")
  t0=$(ms); ctl dev-format "$part"; wait_count LUM_TV_EVT_STORAGE_FORMAT "$r"; t1=$(ms)
  service+=($(( t1 - t0 )))
  tool_in+=($(log_span "$lines" "run: mkfs.ext4 -T largefile $part" "run: sync"))
done
grep "^LUM_TV_EVT_STORAGE_FORMAT " "$events" | grep -qv "result=0" &&
  echo "bench_format: a format did not succeed: $(grep '^LUM_TV_EVT_STORAGE_FORMAT ' "$events" | tr '\n' ' ')" >&2

# The tool alone on the same device, off-line, as the service runs it; what
# entering the television costs is taken off.
ctl dev-umount "/dev/$dev"; wait_count LUM_TV_EVT_STORAGE_DEV_UMOUNT_END 1
t0=$(ms); for _ in $(seq 5); do "$rig" exec "$id" -- true; done; t1=$(ms)
exec_ms=$(( (t1 - t0) / 5 ))
floor=()
for _ in $(seq "$rounds"); do
  t0=$(ms); "$rig" exec "$id" -- sh -c "mkfs.ext4 -T largefile $part </dev/null >/dev/null 2>&1"; t1=$(ms)
  floor+=($(( t1 - t0 - exec_ms )))
done

s=$(median "${service[@]}"); f=$(median "${floor[@]}"); i=$(median "${tool_in[@]}")
echo "format of a ${size} MB ext4 partition, STORAGE_DEV_FORMAT to LUM_TV_EVT_STORAGE_FORMAT ($rounds rounds)"
echo "  service             median ${s} ms   (all: ${service[*]})"
echo "  tool in the service median ${i} ms   (all: ${tool_in[*]}; from its log)"
echo "  tool alone          median ${f} ms   (all: ${floor[*]})"
awk -v s="$s" -v f="$f" 'BEGIN { if (f > 0) printf "  ratio               %.2f   service / tool alone\n", s / f }'
echo "  around the tool: $(( s - i )) ms (unmount run, sync, mount run, size query, request and event)"
