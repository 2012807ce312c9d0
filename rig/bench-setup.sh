#!/usr/bin/env bash
# Prints how long it takes to set up and tear down a two-disk television
# (a FAT + ext4 stick and an NTFS hard disk, with a few files), as root.
#   rig/bench-setup.sh [ROUNDS]      (default 3)
# Figures only; nothing is asserted.
set -euo pipefail
here=$(cd "$(dirname "$(readlink -f "$0")")" && pwd)
rig=$here/rig
rounds=${1:-3}
[ "$(id -u)" = 0 ] || {
  echo "bench-setup: SKIPPED: needs root for the rig" >&2
  exit 0
}
desc=$(mktemp)
trap 'rm -f "$desc"' EXIT
cat >"$desc" <<'DESC'
disk stick size=256M vendor=SanDisk model="Cruzer Blade"
  part size=64M fs=vfat label=STICK
    file /readme.txt text="hello"
    file /music/a.bin size=256K
  part fs=ext4 label=DATA
    file /movies/clip.bin size=1M
disk hdd size=1G table=gpt vendor=WD model=Elements
  part fs=ntfs label=Movies
    file /films/a.bin size=1M
DESC

ms() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%d", (b - a) * 1000 }'; }
printf '%-6s %10s %10s %10s %10s\n' round up_ms exec_ms plug_ms down_ms
tot_up=0 tot_down=0
for i in $(seq 1 "$rounds"); do
  t0=$(date +%s.%N)
  id=$("$rig" up --owner $$ "$desc")
  t1=$(date +%s.%N)
  "$rig" exec "$id" -- blkid -d >/dev/null
  t2=$(date +%s.%N)
  "$rig" unplug "$id" stick >/dev/null
  "$rig" plug "$id" stick >/dev/null
  t3=$(date +%s.%N)
  "$rig" down "$id"
  t4=$(date +%s.%N)
  up=$(ms "$t0" "$t1") down=$(ms "$t3" "$t4")
  printf '%-6s %10s %10s %10s %10s\n' "$i" "$up" "$(ms "$t1" "$t2")" "$(ms "$t2" "$t3")" "$down"
  tot_up=$((tot_up + up))
  tot_down=$((tot_down + down))
done
printf 'mean   %10s %10s %10s %10s\n' $((tot_up / rounds)) - - $((tot_down / rounds))
echo "(up: images, tables, loop devices, namespaces, mkfs, files; exec: one blkid -d inside;"
echo " plug: unplug + plug of the stick with uevents; down: everything removed)"
