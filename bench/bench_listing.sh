#!/usr/bin/env bash
# Directory listing on the simulated television: a folder of 10,000 small
# tagged MP3 files on an ext4 stick, listed by the service (STORAGE_READ_DIRS
# through `lumstoragectl ls`, from its start until the whole listing has come)
# against the floor of the same work, bench_listing_floor inside the same
# television (scandir64, lstat64 and TagLib's reads; with --no-tags
# scandir64 and lstat64 only). Warm cache: each side lists the folder once
# before it is timed. Also the daemon's memory during a listing. Prints
# figures, asserts nothing. Root.
#
# usage: bench/bench_listing.sh [BUILD_DIR] [ROUNDS]
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=bench/rig_service.sh
source "$top/bench/rig_service.sh"
rig_service_args 7 "$@"
files=10000

# One MP3 of a one-second tone; then $files files of its MPEG data, each
# behind an ID3v2.3 tag of its own, written by one Python process.
make_music() {
  mkdir -p "$1"
  sox -n -r 44100 -c 2 -b 16 "$work/tone.wav" synth 1 sine 440
  lame --quiet -b 128 "$work/tone.wav" "$work/tone.mp3"
  python3 - "$work/tone.mp3" "$1" "$files" <<'EOF'
import struct, sys

mpeg = open(sys.argv[1], 'rb').read()
folder, count = sys.argv[2], int(sys.argv[3])


def frame(name, text):
    body = b'\0' + text.encode('latin-1')  # encoding byte 0: ISO-8859-1
    return name.encode() + struct.pack('>I', len(body)) + b'\0\0' + body


def syncsafe(n):
    return bytes((n >> s) & 0x7f for s in (21, 14, 7, 0))


for i in range(1, count + 1):
    frames = b''.join(frame(n, t) for n, t in (
        ('TIT2', 'Title %05d' % i), ('TPE1', 'Artist %05d' % i), ('TALB', 'Album %05d' % i),
        ('TCON', 'Genre %05d' % i), ('TYER', str(1950 + i % 70)), ('TRCK', str(i % 99 + 1))))
    with open('%s/song_%05d.mp3' % (folder, i), 'wb') as f:
        f.write(b'ID3\3\0\0' + syncsafe(len(frames)) + frames + mpeg)
EOF
}

# id3v2 reads one file back; a tag it does not show as written is a set-up
# failure.
check_tag() {
  local shown want
  shown=$(id3v2 -l "$1/song_00042.mp3")
  for want in "TIT2 .*: Title 00042" "TPE1 .*: Artist 00042" "TALB .*: Album 00042" \
    "TCON .*: Genre 00042" "TYER .*: 1992" "TRCK .*: 43"; do
    grep -q "^$want" <<<"$shown" && continue
    printf 'bench_listing: id3v2 does not show "%s" in song_00042.mp3:\n%s\n' "$want" "$shown" >&2
    exit 1
  done
}

rig_service_scratch
make_music "$work/music"
check_tag "$work/music"
rig_service_up "disk stick size=320M table=msdos plugged=no\n  part fs=ext4 label=MUSIC\n    file /music from=$work/music\n    dir /empty\n"
dev=$("$rig" plug "$id" stick | head -n1)
wait_count LUM_TV_EVT_STORAGE_DEV_MOUNT_END 1
rig_service_unwatch
folder=/mnt/pvr/shared/${dev}1/music
empty=/mnt/pvr/shared/${dev}1/empty

# One listing of PATH through the client, `ls PATH [--no-tags] --json`;
# prints two figures in microseconds: the client's whole run (its start, the
# connection, the listing, the end marker) and the listing as the client
# waits for it (its "elapsedUs": from the connection until the last record).
# The output goes to $ls_out, by default $work/last.json.
list_service() {
  local t0 wall out=${ls_out:-$work/last.json} summary
  t0=$(us)
  "$build/tools/lumstoragectl" --socket "$sock" ls "$@" --json >"$out"
  wall=$(( $(us) - t0 ))
  summary=$(tail -n 1 "$out")
  summary=${summary#*\"elapsedUs\":}
  echo "$wall ${summary%%[!0-9]*}"
}

# What the listing kept in $work/ls.json showed, from its summary line and
# its records.
listing_seen() {
  local shown
  shown=$(tail -n 1 "$work/ls.json" | grep -o '"shown":[0-9]*' || true)
  echo "${shown#*:} shown, $(grep -o '"tagRead":true' "$work/ls.json" | wc -l) with tags read"
}

# One pass of the floor program over PATH inside the television, with the
# options of list_service; prints its own time in microseconds and leaves
# its line in floor_line.
list_floor() {
  local line
  line=$("$rig" exec "$id" -- "$build/bench/bench_listing_floor" "${@:2}" "$1")
  floor_line=$line
  line=${line#*ns=}
  echo $(( ${line%% *} / 1000 ))
}

# Highest VmRSS (KiB) of the daemon, sampled every 5 ms until TERM. Builtins
# only, so that sampling starts no process; it ends with the daemon.
sample_rss() {
  local peak=0 key value _
  trap 'echo "$peak"; exit 0' TERM
  while [ -e "/proc/$daemon_pid" ]; do
    while read -r key value _; do
      if [ "$key" = VmRSS: ]; then
        [ "$value" -gt "$peak" ] && peak=$value
        break
      fi
    done <"/proc/$daemon_pid/status" || break
    read -r -t 0.005 -u "$idle_fd" || true
  done 2>/dev/null
  echo "$peak"
}
# user + system time of the daemon so far, in clock ticks (fields 14 and
# 15 of its stat line; its name has no blank).
daemon_ticks() {
  local -a f
  read -r -a f <"/proc/$daemon_pid/stat"
  echo $(( f[13] + f[14] ))
}
status_kib() { awk -v k="$1:" '$1 == k { print $2 }' "/proc/$daemon_pid/status"; }

# Timed rounds of both sides, taken in turns so that the load of the
# machine, which drifts, falls on both alike: SERVICE_TIMES FLOOR_TIMES
# (names of arrays, in microseconds) PATH [--no-tags]. Each side lists once
# first to warm the cache; that pass is not counted, and what it saw stays
# in $work/ls.json and floor_line. daemon_cpu: the daemon's CPU time per
# timed listing, in milliseconds.
measure() {
  local -n s_times=$1 f_times=$2 w_times=${1}_wall
  local _ ticks wall waited
  shift 2
  s_times=() f_times=() w_times=()
  ls_out=$work/ls.json list_service "$@" >/dev/null
  list_floor "$@" >/dev/null
  ticks=$(daemon_ticks)
  for _ in $(seq "$rounds"); do
    read -r wall waited <<<"$(list_service "$@")"
    s_times+=("$waited")
    w_times+=("$wall")
    f_times+=("$(list_floor "$@")")
  done
  daemon_cpu=$(awk -v t="$(( $(daemon_ticks) - ticks ))" -v hz="$(getconf CLK_TCK)" -v n="$rounds" \
    'BEGIN { printf "%.1f", t * 1000 / hz / n }')
}

# What the last measure saw besides the times, into the array NAME, a line
# each.
take_notes() {
  local -n into=$1
  # shellcheck disable=SC2034  # into names the caller's array
  into=("daemon CPU $daemon_cpu ms per listing (user + system)"
    "listed: service $(listing_seen); floor $floor_line")
}

rss_before=$(status_kib VmRSS)
hwm_before=$(status_kib VmHWM)
declare -a svc_empty=() floor_empty=() notes_tags=() notes_bare=()  # filled through their names
declare -a svc_empty_wall=() svc_tags_wall=() svc_bare_wall=()
measure svc_empty floor_empty "$empty"
measure svc_tags floor_tags "$folder"
take_notes notes_tags
measure svc_bare floor_bare "$folder" --no-tags
take_notes notes_bare

# The daemon's memory: sampled during one more listing of each kind, which
# is not timed, so that the sampling costs the timed ones nothing.
sample_rss >"$work/rss" &
sampler=$!
list_service "$folder" >/dev/null
list_service "$folder" --no-tags >/dev/null
kill -TERM "$sampler"
wait "$sampler" || true
rss_peak=$(<"$work/rss")
hwm_after=$(status_kib VmHWM)

# Microseconds as milliseconds with one decimal, on one line.
in_ms() { printf '%s\n' "$@" | awk '{ printf "%s%.1f", (NR > 1 ? " " : ""), $1 / 1000 } END { print "" }'; }

# The lines of one comparison: LABEL FLOOR_WORK SERVICE_TIMES FLOOR_TIMES
# TARGET NOTE..., the times as names of arrays, each NOTE a line.
report() {
  local -n s_all=$3 f_all=$4 w_all=${3}_wall
  local s f w
  s=$(median "${s_all[@]}")
  f=$(median "${f_all[@]}")
  w=$(median "${w_all[@]}")
  awk -v n="$files" -v s="$s" -v f="$f" -v w="$w" -v label="$1" -v work="$2" -v target="$5" 'BEGIN {
    printf "  %-9s service  median %7.1f ms  %7.0f files/s\n", label, s / 1000, n * 1e6 / s
    printf "            floor    median %7.1f ms  %7.0f files/s   (%s)\n", f / 1000, n * 1e6 / f, work
    printf "            ratio    %.2f   service / floor (target: within %s)\n", s / f, target
    printf "            client   median %7.1f ms from the start of lumstoragectl to its end (ratio %.2f)\n", w / 1000, w / f }'
  echo "            all runs (ms): service $(in_ms "${s_all[@]}"); floor $(in_ms "${f_all[@]}")"
  shift 5
  printf '            %s\n' "$@"

}

echo "listing of $files tagged MP3 files in one folder of an ext4 stick, warm cache ($rounds rounds)"
echo "  service: lumstoragectl ls PATH [--no-tags] --json, from its connection until the listing is in"
echo "  floor:   bench_listing_floor [--no-tags] PATH inside the television, its own time"
report "tags on" "scandir64, lstat64, TagLib reads" svc_tags floor_tags 1.15 "${notes_tags[@]}"
report "tags off" "scandir64, lstat64" svc_bare floor_bare 1.30 "${notes_bare[@]}"
echo "  fixed cost  service median $(in_ms "$(median "${svc_empty[@]}")") ms for an empty folder (connection, request:"
echo "              part of every service figure above), $(in_ms "$(median "${svc_empty_wall[@]}")") ms with the client's start;"
echo "              floor $(in_ms "$(median "${floor_empty[@]}")") ms"
echo "  daemon memory: VmRSS ${rss_before} KiB before, peak ${rss_peak} KiB sampled during a listing;"
echo "                 VmHWM ${hwm_before} -> ${hwm_after} KiB (+$(( hwm_after - hwm_before )) KiB)"
