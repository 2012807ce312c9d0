#!/usr/bin/env bash
# The demo: the storage service on a simulated television, driven by
# lumstoragectl. A USB stick with a FAT partition (music, a playlist; its
# label in GBK) and an ext4 partition (a recording with its companion files)
# is plugged in, a phone joins over MTP, and the service lists, copies,
# chooses the PVR partition, formats, measures and lets go again.
#
# Each step prints a header, the commands it runs with their output, the
# events the service sent meanwhile, and one last line "ok: STEP" or
# "FAILED: STEP". The script exits 0 only when every step succeeded, and
# always takes the television down (also on failure or Ctrl-C).
#
# Run as root on Debian 12. It installs the packages it needs and builds what
# it runs. Environment:
#   LUM_DEMO_SKIP_DEPS=1   do not run scripts/install-deps.sh (done already)
#   LUM_DEMO_BUILD=DIR     the CMake build folder to use (default: build)
set -uo pipefail
cd "$(dirname "$0")/.."
top=$PWD
build=${LUM_DEMO_BUILD:-$top/build}
rig=$top/rig/rig
ctl_bin=$build/tools/lumstoragectl
started=$SECONDS

if [ "$(id -u)" -ne 0 ]; then
  echo "demo.sh: the simulated television needs root (sudo ./scripts/demo.sh)" >&2
  exit 1
fi

# Mount points the service gives the stick's partitions and the phone.
stick_fat=/mnt/pvr/shared/sdb1
stick_ext=/mnt/pvr/shared/sdb2
phone_id=VEN_04E8_PID_6860_SER_R58M1

if [ -t 1 ]; then bold=$'\033[1m' red=$'\033[31m' plain=$'\033[0m'; else bold="" red="" plain=""; fi

work=$(mktemp -d /tmp/lumdemo.XXXXXX)
id=""
sock=""
watcher=""
failed=()
cleanup() {
  [ -n "$watcher" ] && kill "$watcher" 2>/dev/null
  [ -n "$id" ] && "$rig" down "$id" >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT
trap 'echo; echo "demo: interrupted" >&2; exit 130' INT TERM

# --- steps -----------------------------------------------------------------

# run_step NAME TITLE FUNCTION: the header, the function, the verdict.
run_step() {
  local name=$1 title=$2 fn=$3
  printf '\n%s=== %s%s\n' "$bold" "$title" "$plain"
  event_mark=$(event_lines)
  if "$fn"; then
    echo "ok: $name"
    return 0
  fi
  printf '%sFAILED: %s%s\n' "$red" "$name" "$plain"
  failed+=("$name")
  return 1
}

# Without these nothing after them can run.
must() {
  run_step "$@" && return 0
  echo "demo: cannot go on without step '$1'" >&2
  exit 1
}

# ctl ARGS: shows the command line, runs it, keeps its output in $work/out.
ctl() {
  printf '%s$ lumstoragectl %s%s\n' "$bold" "$*" "$plain"
  "$ctl_bin" --socket "$sock" "$@" 2>&1 | tee "$work/out"
}

# inside CMD...: shows and runs a command inside the television.
inside() {
  printf '%s$ %s%s\n' "$bold" "$*" "$plain"
  "$rig" exec "$id" -- "$@" 2>&1 | tee "$work/out"
}

# check TEXT WHAT: the last command's output holds TEXT.
check() {
  grep -qF -- "$1" "$work/out" && return 0
  echo "demo: expected $2 ('$1')" >&2
  return 1
}

# --- the service's events ---------------------------------------------------

event_lines() { [ -f "$work/events" ] && wc -l <"$work/events" || echo 0; }

# The events that came in this step.
step_events() { tail -n +"$((event_mark + 1))" "$work/events"; }

# wait_event NAME [COUNT]: waits up to 60 s until COUNT events NAME came in
# this step.
wait_event() {
  local n
  for _ in $(seq 1200); do
    n=$(step_events | grep -c "^$1 ")
    [ "$n" -ge "${2:-1}" ] && return 0
    sleep 0.05
  done
  echo "demo: no $1 within 60 s" >&2
  return 1
}

# The events of this step, one line each: answers to queries and listing
# blocks left out (the commands show those), long lines cut.
show_events() {
  step_events |
    grep -v '^  \|^LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES \|^LUM_TV_EVT_STORAGE_GET_DEV_TABLE \|^LUM_TV_EVT_STORAGE_READ_DIRS ' |
    cut -c 1-150 | sed 's/^/  event: /'
}

# --- what the demo does -------------------------------------------------------

prepare() {
  if [ "${LUM_DEMO_SKIP_DEPS:-0}" = 1 ]; then
    echo "packages: not checked (LUM_DEMO_SKIP_DEPS=1)"
  else
    bash scripts/install-deps.sh || return 1
  fi
  if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null || return 1
  fi
  echo "building lumstoraged and lumstoragectl in $build"
  cmake --build "$build" -j"$(nproc)" --target lumstoraged lumstoragectl lumrig_uevent_send \
    lumrig_uevent_listen >"$work/build.log" 2>&1 || { tail -n 30 "$work/build.log"; return 1; }
}

# Three tagged songs, a playlist and a recording with its five companions.
make_media() {
  local m=$work/media
  mkdir -p "$m" "$work/phone/DCIM"
  song() { # file, tone in Hz, track, title
    sox -n -r 44100 -b 16 -c 2 "$m/$1.wav" synth 3 sine "$2" 2>/dev/null &&
      LC_ALL=C.UTF-8 lame --quiet -b 128 --id3v2-only --tt "$4" --ta "The Lumen Trio" --tl "Demo Tapes" \
        --ty 2024 --tn "$3" "$m/$1.wav" "$m/$1.mp3" && rm -f "$m/$1.wav"
  }
  song morning 440 1 "Morning Light" && song noon 523 2 "Café at Noon" && song night 330 3 "Night Drive" ||
    { echo "demo: sox and lame could not make the songs" >&2; return 1; }
  printf '#EXTM3U\n#EXTINF:3,The Lumen Trio - Night Drive\nnight.mp3\n#EXTINF:3,The Lumen Trio - Morning Light\nmorning.mp3\nhttp://radio.example/live.mp3\n' >"$m/list.m3u"
  head -c 2097152 /dev/urandom >"$m/news.ts"
  printf 'Evening news, BBC One, 2024-05-17 18:00' >"$m/news.ts.desc"
  head -c 4096 /dev/urandom >"$m/news.ts.idx"
  printf 'index of news.ts, 188-byte packets' >"$m/news.ts.idx.desc"
  printf '<recording channel="BBC One" start="2024-05-17T18:00" duration="1800"/>\n' >"$m/news.ts.xml"
  head -c 256 /dev/urandom >"$m/news.ts.xml.sig"
  printf 'a photo' >"$work/phone/DCIM/holiday.jpg"
  ls -l "$m"
}

start_television() {
  make_media || return 1
  local m=$work/media
  cat >"$work/tv.desc" <<DESC
disk stick size=256M table=msdos plugged=no vendor=SanDisk model="Cruzer Blade" serial=4C530001234
  part size=96M fs=vfat label=hex:D2F4C0D6
    file /music/morning.mp3 from=$m/morning.mp3
    file /music/noon.mp3 from=$m/noon.mp3
    file /music/night.mp3 from=$m/night.mp3
    file /music/list.m3u from=$m/list.m3u
  part fs=ext4 label=RECORDINGS
    file /recordings/news.ts from=$m/news.ts
    file /recordings/news.ts.desc from=$m/news.ts.desc
    file /recordings/news.ts.idx from=$m/news.ts.idx
    file /recordings/news.ts.idx.desc from=$m/news.ts.idx.desc
    file /recordings/news.ts.xml from=$m/news.ts.xml
    file /recordings/news.ts.xml.sig from=$m/news.ts.xml.sig
DESC
  id=$("$rig" up --owner $$ "$work/tv.desc") || return 1
  echo "television $id, the stick built but not plugged in (FAT label 音乐 in GBK, ext4 RECORDINGS)"
  # Recording and timeshift on; partitions of 100 MB and more may hold them.
  "$rig" exec "$id" -- sh -c 'mkdir -p /run/properties && printf 1 > /run/properties/persist.pvr.tshift.enable &&
    printf 1 > /run/properties/persist.pvr.rec.enable && printf 100 > /run/properties/persist.pvr.device_size_limit' ||
    return 1
  "$rig" run "$id" --name lumstoraged -- env LMDROID_PROPERTY_DIR=/run/properties LUM_LOG_LEVEL=w \
    "$build/host/lumstoraged" --socket /run/lumstorage.sock >/dev/null || return 1
  sock=$("$rig" path "$id" /run/lumstorage.sock)
  for _ in $(seq 100); do [ -S "$sock" ] && break; sleep 0.05; done
  echo "lumstoraged listens on $sock"
  # Every event of the service, for the steps to show.
  : >"$work/events"
  "$ctl_bin" --socket "$sock" watch >"$work/events" 2>/dev/null &
  watcher=$!
  for _ in $(seq 50); do
    grep -q '^LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES ' "$work/events" && return 0
    "$ctl_bin" --socket "$sock" get-storage-volumes >/dev/null 2>&1
    sleep 0.2
  done
  echo "demo: the event watcher never subscribed" >&2
  return 1
}

# stick_and_wait plug|unplug END_EVENT: plugs or pulls the stick and shows
# the events until the service's run ends.
stick_and_wait() {
  printf '%s$ rig %s %s stick%s\n' "$bold" "$1" "$id" "$plain"
  "$rig" "$1" "$id" stick || return 1
  wait_event "$2"
  local rc=$?
  show_events
  return $rc
}

plug_stick() {
  stick_and_wait plug LUM_TV_EVT_STORAGE_DEV_MOUNT_END || return 1
  [ "$(step_events | grep -c '^LUM_TV_EVT_STORAGE_DEV_MOUNT ')" -eq 2 ] ||
    { echo "demo: expected two mounted partitions" >&2; return 1; }
}

add_phone() {
  printf '%s$ rig mtp-add %s --id %s --name "Galaxy S10" --model SM-G973F --files phone%s\n' \
    "$bold" "$id" "$phone_id" "$plain"
  "$rig" mtp-add "$id" --id "$phone_id" --name "Galaxy S10" --model SM-G973F --files "$work/phone" >/dev/null ||
    return 1
  ctl mount "$phone_id" || return 1
  check "1 volume mounted" "the phone mounted"
}

show_volumes() {
  ctl volumes || return 1
  check "├─sdb1" "the FAT partition" && check "└─sdb2" "the ext4 partition" && check "$phone_id" "the phone" &&
    check "音乐" "the FAT label converted from GBK"
}

list_music() {
  ctl ls -h "$stick_fat/music" || return 1
  check 'title "Morning Light"' "the tags of morning.mp3" && check 'title "Café at Noon"' "a UTF-8 title" &&
    check "list.m3u/" "the playlist shown as a folder"
}

list_playlist() {
  ctl ls "$stick_fat/music/list.m3u/" || return 1
  check "night.mp3" "the playlist's first entry" && check 'title "Night Drive"' "the entry's tags" &&
    check "live.mp3" "the stream entry"
}

copy_recording() {
  ctl mkdir "$stick_fat/recordings" || return 1
  ctl cp --recording "$stick_ext/recordings/news.ts" "$stick_fat/recordings/news.ts" || return 1
  ctl ls -h "$stick_fat/recordings" || return 1
  check "news.ts.idx.desc" "the companions beside the copy"
  echo "(the signature news.ts.xml.sig stays with the original)"
  show_events
}

pvr_choice() {
  ctl pvr state || return 1
  ctl pvr path || return 1
  ctl pvr guide || return 1
}

format_ext4() {
  ctl format /dev/sdb2 || return 1
  check "result: ok" "a successful format"
  local rc=$?
  show_events
  [ $rc -eq 0 ] || return 1
  inside ls -A "$stick_ext"
  echo "(empty but for lost+found and the PVR identity file the service wrote when it chose the partition again)"
}

benchmark() {
  ctl bench "$stick_ext" || return 1
  check "result:" "the benchmark's figure"
}

unplug_stick() {
  stick_and_wait unplug LUM_TV_EVT_STORAGE_DEV_UMOUNT_END || return 1
  # The run lets go of every volume whose device has gone: both partitions
  # (the phone's mount goes too: blkid lists no device behind it).
  local gone
  gone=$(step_events | grep '^LUM_TV_EVT_STORAGE_DEV_UMOUNT ')
  grep -q "$stick_fat\"" <<<"$gone" && grep -q "$stick_ext\"" <<<"$gone" ||
    { echo "demo: expected both partitions unmounted" >&2; return 1; }
  ctl volumes || return 1
  ! grep -q sdb "$work/out" || { echo "demo: the stick is still listed" >&2; return 1; }
}

tear_down() {
  kill "$watcher" 2>/dev/null
  watcher=""
  printf '%s$ rig down %s%s\n' "$bold" "$id" "$plain"
  "$rig" down "$id" || return 1
  id=""
}

must prepare "Installing and building what the demo needs" prepare
must television "A television with a USB stick not yet plugged in, and the service" start_television
must plug "Plugging in the stick: the service mounts both partitions and picks the PVR partition" plug_stick
run_step phone "A phone offered over MTP, mounted on request" add_phone
run_step volumes "The volume table" show_volumes
run_step ls "Music on the FAT partition, with the tags TagLib reads" list_music
run_step playlist "The playlist, shown as a folder" list_playlist
run_step copy "Copying the recording to the FAT partition, with its companion files" copy_recording
run_step pvr "The PVR partition and the guide for the user interface" pvr_choice
run_step format "Formatting the ext4 partition" format_ext4
run_step bench "Measuring the fresh ext4 partition" benchmark
run_step unplug "Pulling the stick out" unplug_stick
run_step teardown "Taking the television down" tear_down

echo
if [ ${#failed[@]} -gt 0 ]; then
  printf '%sdemo: %d step(s) failed: %s (%d s)%s\n' "$red" "${#failed[@]}" "${failed[*]}" $((SECONDS - started)) "$plain"
  exit 1
fi
echo "demo: every step succeeded in $((SECONDS - started)) s"
