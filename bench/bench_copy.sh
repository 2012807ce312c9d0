#!/usr/bin/env bash
# Copies on the simulated television, from one ext4 stick to another:
# - one 1 GiB file of random bytes, copied by the service (STORAGE_COPY
#   through `lumstoragectl cp SRC DST`, from the client's start until it
#   exits after the end event) against `cp -a SRC DST2` on the same volumes
#   inside the same television, timed by its own shell; an empty file the
#   same way gives the fixed cost of a copy;
# - a tree of 2,000 files of 1-8 KiB in 20 folders, `lumstoragectl cp -r
#   SRC/ DST/` against `cp -a SRC DST2`.
# Targets: the tree within 2x the floor, the empty file within 3x, the big
# file within 1.1x; the spread of the big file's runs shows the noise.
# The sides take turns (the one that goes first changes every round), so
# that the load of the machine, which drifts, falls on all alike.
# Cold cache on every side: before every copy the destinations are removed,
# everything is written back (sync) and the page cache is dropped (echo 3 >
# /proc/sys/vm/drop_caches: the whole machine's, also the host's cache of
# the disk images, and so also that of anything else running here); the
# programs themselves start from a cold cache too. Prints figures, asserts
# nothing. Root.
#
# usage: bench/bench_copy.sh [BUILD_DIR] [ROUNDS]
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=bench/rig_service.sh
source "$top/bench/rig_service.sh"
rig_service_args 7 "$@"
files=2000
folders=20

# Room on each stick for the big file twice and the tree; the images are
# sparse, so only what is written takes space on the host.
rig_service_up "disk src size=2600M table=msdos plugged=no\n  part fs=ext4 label=SOURCE\n\
disk dst size=2600M table=msdos plugged=no\n  part fs=ext4 label=TARGET\n"
src_dev=$("$rig" plug "$id" src | head -n1)
wait_count LUM_TV_EVT_STORAGE_DEV_MOUNT_END 1
dst_dev=$("$rig" plug "$id" dst | head -n1)
wait_count LUM_TV_EVT_STORAGE_DEV_MOUNT_END 2
rig_service_unwatch
src_vol=/mnt/pvr/shared/${src_dev}1
dst_vol=/mnt/pvr/shared/${dst_dev}1

# The data, written once inside the television: the big file from
# /dev/urandom (real blocks, no holes), an empty file (the fixed cost of a
# copy), the tree by one Python process, files of 1 to 8 KiB.
"$rig" exec "$id" -- sh -c "head -c 1G /dev/urandom >$src_vol/big.bin && : >$src_vol/empty.bin"
"$rig" exec "$id" -- python3 -c '
import os, random, sys
root, files, folders = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
rnd = random.Random(1)
for i in range(files):
    folder = "%s/d%02d" % (root, i % folders)
    os.makedirs(folder, exist_ok=True)
    with open("%s/f%04d.bin" % (folder, i), "wb") as f:
        f.write(os.urandom(rnd.randint(1024, 8192)))
' "$src_vol/tree" "$files" "$folders"
"$rig" exec "$id" -- sync

# "FILES BYTES": the regular files under PATH (or PATH itself) and their
# bytes, to hold each copy against its source.
content() {
  "$rig" exec "$id" -- find "$1" -type f -printf '%s\n' | awk '{ n++; b += $1 } END { print n + 0, b + 0 }'
}
big_content=$(content "$src_vol/big.bin")
tree_content=$(content "$src_vol/tree")

# Before each timed copy: no destination left, nothing dirty, no cache. Two
# syncs: the first writes the volumes to the loop devices, whose writes land
# in the host's cache of the images; the second writes those back.
settle() {
  "$rig" exec "$id" -- rm -rf "$@"
  sync; sync
  echo 3 >/proc/sys/vm/drop_caches
}

# The sides, each copy_SIDE SRC DST, its time in microseconds in $took. A
# SRC ending in "/" is a tree. A failed copy ends the benchmark.
#
# service: `lumstoragectl cp SRC DST` (`cp -r SRC/ DST/` for a tree), from
# the client's start until it exits after the end event.
copy_service() {
  local t0 t1 rc=0 args=("$1" "$2")
  [ "${1: -1}" = / ] && args=(-r "$1" "$2/")
  t0=$(us)
  "$build/tools/lumstoragectl" --socket "$sock" cp "${args[@]}" >"$work/cp.out" 2>&1 || rc=$?
  t1=$(us)
  if [ "$rc" -ne 0 ]; then
    echo "bench_copy: lumstoragectl cp ${args[*]} exited with $rc: $(<"$work/cp.out")" >&2
    exit 1
  fi
  took=$(( t1 - t0 ))
}

# timed_inside SCRIPT SRC DST WHAT: runs SCRIPT with bash inside the
# television, with SRC (without its "/") and DST as $1 and $2; the script
# prints its own time, so that entering the television is not counted.
timed_inside() {
  took=$("$rig" exec "$id" -- bash -c "$1" _ "${2%/}" "$3") || {
    echo "bench_copy: $4 failed inside the television" >&2
    exit 1
  }
}

# floor: cp -a SRC DST, one process for the whole work.
# shellcheck disable=SC2016  # the script's words expand inside
copy_floor() {
  timed_inside 't0=${EPOCHREALTIME/./}; cp -a "$1" "$2" || exit 1
    echo $(( ${EPOCHREALTIME/./} - t0 ))' "$1" "$2" "cp -a $1 $2"
}

# A copy that does not hold as many files and bytes as its source ends the
# benchmark: its time would not be that of the whole work.
check_copy() {
  local got
  got=$(content "$1")
  [ "$got" = "$2" ] && return 0
  echo "bench_copy: $1 holds $got (files, bytes), its source $2" >&2
  exit 1
}

declare -A times=()  # KIND.SIDE: the timed copies' microseconds, blank-separated

# Rounds of one comparison: KIND SRC SIDE...; side S copies SRC to
# $dst_vol/KIND.S. Each side copies once first, not timed: the first write
# into the sparse image of the destination and the first start of each
# program fall on no figure. Then $rounds timed rounds, the order of the
# sides turned by one each round.
measure() {
  local kind=$1 src=$2 want r i n side
  shift 2
  local -a sides=("$@") dsts=("${@/#/$dst_vol/$kind.}")
  n=${#sides[@]}
  want=$(content "$src")
  for r in $(seq 0 "$rounds"); do
    for i in $(seq 0 $((n - 1))); do
      side=${sides[(i + r) % n]}
      settle "${dsts[@]}"
      "copy_$side" "$src" "$dst_vol/$kind.$side"
      check_copy "$dst_vol/$kind.$side" "$want"
      [ "$r" -gt 0 ] && times[$kind.$side]+=" $took"
    done
  done
  settle "${dsts[@]}"
}

measure empty "$src_vol/empty.bin" service floor
measure big "$src_vol/big.bin" service floor
measure tree "$src_vol/tree/" service floor

# The timed copies of KIND.SIDE, into the array NAME.
runs_of() {
  local -n into=$2
  # shellcheck disable=SC2034  # into names the caller's array
  read -r -a into <<<"${times[$1]}"
}
# The median of KIND.SIDE in microseconds.
median_of() {
  local -a t
  runs_of "$1" t
  median "${t[@]}"
}
# The figure line of one side: KIND.SIDE LABEL UNIT, UNIT "MB/s" (with the
# bytes in $bytes) or "files/s"; its median in microseconds in $med.
side_line() {
  local -a t
  runs_of "$1" t
  med=$(median "${t[@]}")
  printf '%s\n' "${t[@]}" | awk -v label="$2" -v unit="$3" -v m="$med" -v b="$bytes" -v n="$files" '
    { runs = runs (NR > 1 ? " " : "") sprintf("%.0f", $1 / 1000) }
    { lo = (NR == 1 || $1 < lo) ? $1 : lo; hi = (NR == 1 || $1 > hi) ? $1 : hi }
    END { printf "    %-38s %7.0f ms  %7.1f %-7s (runs, ms: %s; spread +-%.0f%%)\n", label, m / 1000,
          (unit == "MB/s" ? b : n * 1e6) / m, unit, runs, (hi - lo) / 2 / m * 100 }'
}
in_ms() { awk -v t="$1" 'BEGIN { printf "%.1f", t / 1000 }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

echo "copies from one ext4 stick to another on the simulated television ($rounds rounds, median)"
echo "  cold cache on every side: before each copy the destinations are removed, then sync and"
echo "  drop_caches (the whole machine's page cache); the copies end when cp ends, neither side"
echo "  waits for write-back. Each copy checked: as many files and bytes as its source."
bytes=${big_content#* }
echo "  one 1 GiB file ($bytes bytes of random data)"
side_line big.service "service  lumstoragectl cp SRC DST" MB/s; s=$med
side_line big.floor "floor    cp -a SRC DST2" MB/s; f=$med
echo "    ratio    $(ratio "$s" "$f")   service / floor (target: within 1.1)"
es=$(median_of empty.service)
ef=$(median_of empty.floor)
echo "    fixed cost, the same copy of an empty file: service $(in_ms "$es") ms," \
  "floor $(in_ms "$ef") ms, ratio $(ratio "$es" "$ef") (target: within 3)"
bytes=${tree_content#* }
echo "  tree of $files files of 1-8 KiB in $folders folders ($(awk -v b="$bytes" 'BEGIN { printf "%.1f", b / 1e6 }') MB)"
side_line tree.service "service  lumstoragectl cp -r SRC/ DST/" files/s; s=$med
side_line tree.floor "floor    cp -a SRC DST2" files/s; f=$med
echo "    ratio    $(ratio "$s" "$f")   service / floor (target: within 2)"
awk -v s="$s" -v f="$f" -v n="$files" 'BEGIN {
  printf "    cost per file of the service: %.2f ms  ((service - floor) / %d)\n", (s - f) / 1000 / n, n }'
