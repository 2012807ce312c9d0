# The host side of the rig: builds and tears down televisions, and runs
# commands inside them. Everything here runs in the caller's namespaces; work
# inside a television goes through enter_rig (nsenter on its holder process).

# ---------------------------------------------------------------- lookups

# Prints the state directory of a live television, or dies.
need_rig() {
  local id=$1 S
  valid_id "$id" || die "bad television id '$id'"
  S=$(state_of "$id")
  [ -d "$S" ] || die "no television '$id' (no $S)"
  [ "$(read_file "$S/status")" = ready ] || die "television '$id' is not ready (status: $(read_file "$S/status"))"
  printf '%s\n' "$S"
}

# Prints the pid of the television's holder after checking it is the very
# process that was recorded and that its root is the television's.
holder_pid() {
  local S=$1 id h pid
  id=$(basename "$S")
  h=$(read_file "$S/holder")
  ident_alive "$h" || die "television '$id' has lost its holder process (crashed?); run: rig down $id"
  pid=$(ident_pid "$h")
  [ "$(read_file "/proc/$pid/root/.rig/id")" = "$id" ] || die "television '$id': holder $pid is not inside it"
  printf '%s\n' "$pid"
}

# The environment every process inside a television gets.
rig_env() {
  local id=$1
  printf '%s\n' \
    "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin" \
    "BLKID_FILE=$IN_STATE/blkid.tab" \
    "LUMRIG_ID=$id" \
    "LUMRIG_INSIDE=1" \
    "LUMRIG_UEVENT_MODE=${LUMRIG_UEVENT_MODE:-kernel}"
}

# enter_cmd S CMD...: fills ENTER with the command line that runs CMD inside
# the television's mount, IPC and network namespaces, with the television's
# environment added.
enter_cmd() {
  local S=$1 pid id
  shift
  id=$(basename "$S")
  pid=$(holder_pid "$S") || exit 1
  local -a envs
  mapfile -t envs < <(rig_env "$id")
  ENTER=(nsenter -t "$pid" -m -i -n -- env "${envs[@]}" "$@")
}

enter_rig() {
  enter_cmd "$@"
  "${ENTER[@]}"
}

# Runs one of the rig's own operations inside the television.
inside() {
  local S=$1
  shift
  enter_rig "$S" "$IN_STATE/lib/rig" _in "$@"
}

# ---------------------------------------------------------------- up

# Compiles the uevent tools into DIR (or copies them from $LUMRIG_TOOLDIR,
# where CMake puts them).
build_tools() {
  local dir=$1 t
  mkdir -p "$dir"
  for t in uevent_send uevent_listen; do
    if [ -n "${LUMRIG_TOOLDIR:-}" ] && [ -x "$LUMRIG_TOOLDIR/lumrig_$t" ]; then
      cp "$LUMRIG_TOOLDIR/lumrig_$t" "$dir/$t"
    else
      command -v cc >/dev/null || die "step 'tools': no C compiler (cc) to build $t"
      cc -O2 -Wall -Wextra -o "$dir/$t" "$RIG_HOME/tools/$t.c" 2>"$dir/$t.cc.log" ||
        die "step 'tools': compiling $t failed: $(cat "$dir/$t.cc.log")"
    fi
  done
}

# Attaches IMAGE to a free loop device with its partitions; records it in
# $S/loops before anything else can fail.
attach_loop() {
  local S=$1 disk=$2 img=$3 expect=$4 dev out
  out=$(losetup -f --show -P "$img" 2>&1) || die "disk '$disk': step 'loop device': losetup: $out"
  dev=$out
  printf '%s %s %s\n' "$disk" "$dev" "$img" >>"$S/loops"
  mkdir -p "$S/disks/$disk"
  printf '%s\n' "$dev" >"$S/disks/$disk/loop"
  [ "$expect" = 0 ] && return 0
  # The kernel does not always scan the table on attach; partx adds what is
  # missing.
  local lname=${dev#/dev/} tries=0
  while ! ls -d "/sys/block/$lname/${lname}p"* >/dev/null 2>&1; do
    if [ $tries = 0 ]; then
      out=$(partx -a "$dev" 2>&1) || true
    fi
    tries=$((tries + 1))
    [ $tries -lt 50 ] || die "disk '$disk': step 'loop device': no partitions appeared on $dev ($out)"
    sleep 0.05
  done
  local have
  have=$(ls -d "/sys/block/$lname/${lname}p"* | wc -l)
  [ "$have" -ge "$expect" ] || die "disk '$disk': step 'loop device': $dev shows $have partitions, $expect expected"
}

# Starts the namespaces: a network namespace owned by a throwaway user
# namespace (so the kernel's own uevents for the host never reach it), then a
# holder process in new mount and IPC namespaces inside it, which sets up the
# television's file system view and then sleeps.
start_holder() {
  local S=$1 id=$2 sp="" pid
  local -a pre=()
  if [ "${LUMRIG_NETNS:-userns}" = userns ] && unshare --user --net -- true 2>/dev/null; then
    setsid unshare --user --net -- sleep 600 </dev/null >/dev/null 2>&1 &
    sp=$!
    ident_of "$sp" >"$S/sleeper" || die "step 'namespaces': network namespace helper died"
    local tries=0
    while [ "$(readlink "/proc/$sp/ns/net" 2>/dev/null)" = "$(readlink /proc/self/ns/net)" ] ||
      [ "$(readlink "/proc/$sp/exe" 2>/dev/null)" != "$(readlink -f "$(command -v sleep)")" ]; do
      tries=$((tries + 1))
      [ $tries -lt 200 ] || die "step 'namespaces': network namespace did not come up"
      ident_alive "$(cat "$S/sleeper")" || die "step 'namespaces': network namespace helper died"
      sleep 0.01
    done
    pre=(nsenter "--net=/proc/$sp/ns/net" --)
    echo userns >"$S/netmode"
  else
    echo plain >"$S/netmode"
    pre=()
  fi
  local -a ns=(unshare --mount --ipc --propagation private)
  [ ${#pre[@]} = 0 ] && ns+=(--net)
  setsid "${pre[@]}" "${ns[@]}" -- "$S/lib/rig" _holder "$id" </dev/null >>"$S/logs/holder.log" 2>&1 &
  pid=$!
  ident_of "$pid" >"$S/holder" || true
  local tries=0
  while [ ! -f "$S/ready" ]; do
    if [ -f "$S/failed" ] || ! alive_pid "$pid"; then
      sleep 0.05
      die "step 'namespaces': the television's holder failed: $(read_file "$S/failed") $(tail -n 5 "$S/logs/holder.log" 2>/dev/null)"
    fi
    tries=$((tries + 1))
    [ $tries -lt 1500 ] || die "step 'namespaces': holder not ready after 30 s: $(tail -n 5 "$S/logs/holder.log")"
    sleep 0.02
  done
  [ "$(read_file "$S/ready")" = "$pid" ] || die "step 'namespaces': holder reported pid $(read_file "$S/ready"), started $pid"
  ident_of "$pid" >"$S/holder"
  readlink "/proc/$pid/ns/mnt" >"$S/mntns"
  readlink "/proc/$pid/ns/net" >"$S/netns"
  if [ -n "$sp" ]; then
    kill -KILL "$sp" 2>/dev/null || true
    wait "$sp" 2>/dev/null || true
  fi
}

# sfdisk quietly makes a partition that does not fit zero-sized: check that
# every partition got the size asked for.
check_layout() {
  local d=$1 img=$2 i=1 line start size got=0 total
  total=$((DK[$d.bytes] / 512))
  local -a starts=() sizes=()
  while read -r line; do
    [[ $line =~ start=\ *([0-9]+),\ *size=\ *([0-9]+),\ *type=([^,]+) ]] || continue
    [ "${BASH_REMATCH[3]}" = 5 ] && continue
    starts+=("${BASH_REMATCH[1]}")
    sizes+=("${BASH_REMATCH[2]}")
  done < <(sfdisk -d "$img" 2>/dev/null)
  got=${#sizes[@]}
  [ "$got" = "${DK[$d.nparts]}" ] ||
    die "disk '$d': step 'partition table': ${DK[$d.nparts]} partitions described, the table holds $got"
  for ((i = 1; i <= got; i++)); do
    start=${starts[$((i - 1))]}
    size=${sizes[$((i - 1))]}
    local want=${PT[$d.$i.bytes]:-}
    if [ "$size" = 0 ] || { [ -n "$want" ] && [ "$size" != $((want / 512)) ]; }; then
      local before=0 j
      for ((j = 1; j < i; j++)); do before=$((before + sizes[j - 1])); done
      local left=$(((total - 2048 - before) * 512 / 1048576))
      [ "$left" -lt 0 ] && left=0
      die "disk '$d': step 'partition table': partition $i (${PT[$d.$i.size]}) does not fit on the ${DK[$d.size]} disk (about ${left}M free for it)"
    fi
  done
}

cmd_up() {
  local id="" owner="" desc="" keep=no
  while [ $# -gt 0 ]; do
    case $1 in
      --id) id=${2:?--id needs a value}; shift ;;
      --owner) owner=${2:?--owner needs a pid}; shift ;;
      --keep-on-error) keep=yes ;;
      -h | --help) usage; return 0 ;;
      -*) [ "$1" = - ] && desc=- || die "up: unknown option '$1'" ;;
      *) desc=$1 ;;
    esac
    shift
  done
  [ -n "$desc" ] || die "up: which description? (a file, or - for stdin)"
  require_root
  cmd_gc --quiet

  mkdir -p "$LUMRIG_RUN"
  chmod 0755 "$LUMRIG_RUN"
  local S
  if [ -n "$id" ]; then
    valid_id "$id" || die "bad television id '$id' (letters, digits, _ . -; at most 32)"
    S=$(state_of "$id")
    mkdir "$S" 2>/dev/null || die "television '$id' exists already ($S); run: rig down $id"
  else
    S=$(mktemp -d "$LUMRIG_RUN/tvXXXXXX")
    id=$(basename "$S")
  fi
  chmod 0755 "$S"
  echo building >"$S/status"
  ident_of $$ >"$S/creator"
  if [ -n "$owner" ]; then
    [[ $owner =~ ^[0-9]+$ ]] || die "up: --owner needs a pid"
    ident_of "$owner" >"$S/owner" || { rm -rf "$S"; die "up: owner $owner does not run"; }
  fi

  # From here on a failure takes down whatever was made.
  UP_STATE=$S
  UP_KEEP=$keep
  trap 'up_failed' EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM

  mkdir -p "$S/logs" "$S/img" "$S/stage" "$S/run" "$S/disks" "$S/fake" "$S/mtp"
  : >"$S/loops"
  : >"$S/events.log"
  : >"$S/mtp.ids"
  echo 6 >"$S/hostctr"
  echo 0 >"$S/seqnum"

  # The rig's own scripts travel with the television, so that it keeps
  # working whatever happens to the checkout.
  mkdir -p "$S/lib"
  cp -R "$RIG_HOME/rig" "$RIG_HOME/lib" "$RIG_HOME/helpers" "$RIG_HOME/tools" "$S/lib/"
  chmod 0755 "$S/lib/rig" "$S/lib/helpers/"*
  build_tools "$S/tools"

  local descfile=$desc
  if [ "$desc" = - ]; then
    descfile=$S/description
    cat >"$descfile"
  else
    [ -r "$desc" ] || die "step 'description': cannot read '$desc'"
    cp "$desc" "$S/description"
  fi
  parse_desc "$descfile" "$S/stage"
  declare -p DISKS DK PT FL | sed -E 's/^declare -([A-Za-z]+)/declare -g\1/' >"$S/desc.sh"

  # Disk images, partition tables, loop devices.
  local d
  for d in "${DISKS[@]}"; do
    local img=$S/img/$d.img out
    out=$(truncate -s "${DK[$d.bytes]}" "$img" 2>&1) || die "disk '$d': step 'image': $out"
    if [ "${DK[$d.table]}" != none ]; then
      out=$(sfdisk_script "$d" | sfdisk --no-reread --no-tell-kernel -q "$img" 2>&1) ||
        die "disk '$d': step 'partition table': sfdisk: $(printf '%s' "$out" | grep -v '^$' | tail -n 3 | tr '\n' ' ')"
    fi
    [ "${DK[$d.table]}" != none ] && check_layout "$d" "$img"
    local expect=0
    [ "${DK[$d.table]}" != none ] && expect=${DK[$d.nparts]}
    attach_loop "$S" "$d" "$img" "$expect"
    echo no >"$S/disks/$d/plugged"
  done

  start_holder "$S" "$id"
  echo ready >"$S/status"
  log_event "$S" "up $id"

  # File systems, files, damage; then the disks that start plugged (without
  # uevents: they were there when the television booted).
  inside "$S" build || exit 1
  for d in "${DISKS[@]}"; do
    if [ "${DK[$d.plugged]}" = yes ]; then
      inside "$S" plug "$d" --quiet >/dev/null || exit 1
    fi
  done
  rm -rf "$S/stage"

  if [ -n "$owner" ]; then
    setsid "$S/lib/rig" _watch "$id" </dev/null >>"$S/logs/watchdog.log" 2>&1 &
    ident_of $! >"$S/watchdog" || true
  fi
  rm -f "$S/creator"
  trap - EXIT INT TERM
  printf '%s\n' "$id"
}

up_failed() {
  local rc=$?
  trap - EXIT
  [ -n "${UP_STATE:-}" ] || exit "$rc"
  [ "$rc" = 0 ] && rc=1
  if [ "${UP_KEEP:-no}" = yes ]; then
    echo failed >"$UP_STATE/status" 2>/dev/null || true
    printf 'rig: kept %s to look at; run: rig down %s\n' "$UP_STATE" "$(basename "$UP_STATE")" >&2
  else
    printf 'rig: cleaning up %s after the failure\n' "$(basename "$UP_STATE")" >&2
    teardown "$UP_STATE" >&2 || true
  fi
  exit "$rc"
}

# ---------------------------------------------------------------- down

# Processes inside the television: in its mount namespace and rooted in it
# (the marker /.rig/id), or one of the processes it recorded.
rig_pids() {
  local S=$1 id p h self=$$ parent=$PPID ref="" marker
  id=$(basename "$S")
  h=$(read_file "$S/holder")
  # The namespace to look for: the live holder's (its pid and start time
  # match the record), else none (then only the root marker counts).
  if ident_alive "$h"; then
    ref=/proc/$(ident_pid "$h")/ns/mnt
  fi
  # Builtins only ([ -ef ] compares namespace inodes, read takes the marker):
  # this runs over every process of the machine.
  for p in /proc/[0-9]*; do
    p=${p#/proc/}
    if [ "$p" = "$self" ] || [ "$p" = "$parent" ] || [ "$p" = "$BASHPID" ]; then continue; fi
    if [ -n "$ref" ] && [ "/proc/$p/ns/mnt" -ef "$ref" ]; then
      echo "$p"
      continue
    fi
    marker=""
    read -r marker 2>/dev/null <"/proc/$p/root/.rig/id" || true
    if [ "$marker" = "$id" ]; then
      echo "$p"
    fi
  done
  local f
  for f in holder sleeper watchdog; do
    h=$(read_file "$S/$f")
    if ident_alive "$h"; then
      p=$(ident_pid "$h")
      [ "$p" = "$self" ] || [ "$p" = "$BASHPID" ] || echo "$p"
    fi
  done
  if [ -d "$S/procs" ]; then
    for f in "$S/procs"/*; do
      [ -f "$f" ] || continue
      h=$(read_file "$f")
      if ident_alive "$h"; then ident_pid "$h"; fi
    done
  fi
  return 0
}

# Stops every process of the television: TERM, a short grace, then KILL, and
# waits until all are gone (their namespaces, mounts and open devices go with
# them).
kill_rig_processes() {
  local S=$1 pids p left i
  pids=$(rig_pids "$S" | sort -u)
  [ -n "$pids" ] || return 0
  # Stopped processes first get SIGCONT so that they can act on TERM.
  for p in $pids; do kill -CONT "$p" 2>/dev/null || true; done
  for p in $pids; do kill -TERM "$p" 2>/dev/null || true; done
  for i in $(seq 1 20); do
    left=""
    for p in $pids; do alive_pid "$p" && left="$left $p"; done
    [ -n "$left" ] || return 0
    sleep 0.05
  done
  for i in $(seq 1 100); do
    pids=$( (echo "$left"; rig_pids "$S") | tr ' ' '\n' | grep -E '^[0-9]+$' | sort -u)
    left=""
    for p in $pids; do
      if alive_pid "$p"; then
        kill -KILL "$p" 2>/dev/null || true
        left="$left $p"
      fi
    done
    [ -n "$left" ] || return 0
    sleep 0.05
  done
  warn "processes still alive after SIGKILL:$left"
  return 1
}

alive_pid() {
  local s
  read -r s 2>/dev/null <"/proc/$1/stat" || return 1
  s=${s##*) }
  [ "${s%% *}" != Z ]
}

# Detaches a loop device only if it is still backed by this television's image.
detach_loop() {
  local dev=$1 img=$2 lname back i
  lname=${dev#/dev/}
  back=$(cat "/sys/block/$lname/loop/backing_file" 2>/dev/null) || return 0
  case $back in
    "$img" | "$img (deleted)") ;;
    *) return 0 ;;
  esac
  losetup -d "$dev" 2>/dev/null || true
  for i in $(seq 1 100); do
    back=$(cat "/sys/block/$lname/loop/backing_file" 2>/dev/null) || return 0
    case $back in "$img" | "$img (deleted)") ;; *) return 0 ;; esac
    sleep 0.05
    [ $((i % 20)) = 0 ] && losetup -d "$dev" 2>/dev/null
  done
  warn "$dev is still attached to $img (busy); the kernel detaches it when released"
  return 1
}

# Every loop device backed by a file in the state directory S (also those a
# crashed run did not get to record).
loops_of_state() {
  local S=$1 f dev back
  for f in /sys/block/loop*/loop/backing_file; do
    [ -f "$f" ] || continue
    back=$(cat "$f" 2>/dev/null) || continue
    case $back in
      "$S"/img/*)
        dev=${f#/sys/block/}
        dev=/dev/${dev%%/*}
        printf '%s %s\n' "$dev" "${back% (deleted)}"
        ;;
    esac
  done
}

# Takes a television down completely: processes, namespaces (and with them
# every mount inside), loop devices, state directory. Safe to repeat; works
# on half-built and crashed televisions.
teardown() {
  local S=$1 ok=0 line dev img
  [ -d "$S" ] || return 0
  echo down >"$S/status" 2>/dev/null || true
  kill_rig_processes "$S" || ok=1
  {
    if [ -f "$S/loops" ]; then
      while read -r _ dev img; do
        [ -n "$dev" ] && printf '%s %s\n' "$dev" "$img"
      done <"$S/loops"
    fi
    loops_of_state "$S"
  } | sort -u | while read -r dev img; do
    detach_loop "$dev" "$img" || true
  done
  if [ -n "$(loops_of_state "$S")" ]; then
    ok=1
  fi
  # Nothing of the television is mounted on the host (all its mounts lived in
  # its own namespace), but check before deleting anything.
  if awk -v s="$S" '$5 == s || index($5, s "/") == 1 { found = 1 } END { exit !found }' /proc/self/mountinfo; then
    warn "something is mounted under $S on the host; leaving the folder"
    return 1
  fi
  if [ "$ok" = 0 ]; then
    rm -rf --one-file-system "$S"
  else
    # Keep the images of loop devices the kernel still holds; drop the rest.
    find "$S" -mindepth 1 -maxdepth 1 ! -name img ! -name loops ! -name status -exec rm -rf --one-file-system {} + 2>/dev/null || true
  fi
  rmdir "$LUMRIG_RUN" 2>/dev/null || true
  return "$ok"
}

cmd_down() {
  local id=${1:-}
  [ -n "$id" ] || die "down: which television? (rig list)"
  require_root
  valid_id "$id" || die "bad television id '$id'"
  local S
  S=$(state_of "$id")
  [ -d "$S" ] || return 0
  teardown "$S" || die "down $id: could not remove everything (see warnings); run 'rig gc' again later"
}

# A television is stale when whoever owned it has gone: the owner given to
# 'up --owner' or, while it was being built, the 'up' process itself.
is_stale() {
  local S=$1 o c w
  o=$(read_file "$S/owner")
  c=$(read_file "$S/creator")
  w=$(read_file "$S/watchdog")
  case $(read_file "$S/status") in
    down | failed) return 0 ;;
  esac
  if [ -n "$c" ] && ! ident_alive "$c"; then return 0; fi
  if [ -n "$o" ] && ! ident_alive "$o" && { [ -z "$w" ] || ! ident_alive "$w"; }; then return 0; fi
  if [ -z "$c" ] && [ "$(read_file "$S/status")" = ready ] && ! ident_alive "$(read_file "$S/holder")"; then return 0; fi
  [ -z "$(read_file "$S/status")" ] && [ -z "$c" ] && return 0
  return 1
}

# Takes down televisions whose owner has gone (all of them with --all), and
# removes processes and loop devices left by televisions whose state
# directory is already gone.
cmd_gc() {
  local all=no quiet=no S
  while [ $# -gt 0 ]; do
    case $1 in
      --all) all=yes ;;
      --quiet) quiet=yes ;;
      *) die "gc: unknown option '$1'" ;;
    esac
    shift
  done
  [ "$(id -u)" = 0 ] || die "gc: needs root"
  [ -d "$LUMRIG_RUN" ] || return 0
  for S in "$LUMRIG_RUN"/*/; do
    S=${S%/}
    [ -d "$S" ] || continue
    valid_id "$(basename "$S")" || continue
    if [ "$all" = yes ] || is_stale "$S"; then
      [ "$quiet" = yes ] || echo "rig: taking down $(basename "$S")" >&2
      teardown "$S" >&2 || true
    fi
  done
  # Orphans: processes rooted in a television whose folder has gone, and loop
  # devices backed by images inside such folders.
  local p id f back
  for p in /proc/[0-9]*; do
    p=${p#/proc/}
    [ "$p" = $$ ] && continue
    id=""
    read -r id 2>/dev/null <"/proc/$p/root/.rig/id" || continue
    valid_id "$id" || continue
    [ -d "$(state_of "$id")" ] && continue
    kill -KILL "$p" 2>/dev/null || true
  done
  for f in /sys/block/loop*/loop/backing_file; do
    [ -f "$f" ] || continue
    back=$(cat "$f" 2>/dev/null) || continue
    case $back in
      "$LUMRIG_RUN"/*/img/*)
        id=${back#"$LUMRIG_RUN"/}
        id=${id%%/*}
        if [ ! -d "$(state_of "$id")" ]; then
          local dev=${f#/sys/block/}
          detach_loop "/dev/${dev%%/*}" "${back% (deleted)}" || true
        fi
        ;;
    esac
  done
  rmdir "$LUMRIG_RUN" 2>/dev/null || true
  return 0
}

# Internal: waits for the owner of a television to go away, then takes the
# television down.
cmd_watch() {
  local id=$1 S o
  S=$(state_of "$id")
  o=$(read_file "$S/owner")
  while [ -d "$S" ] && ident_alive "$o"; do
    sleep 0.3
  done
  if [ -d "$S" ] && [ "$(read_file "$S/status")" != down ]; then
    echo "rig: owner of $id has gone; taking it down" >&2
    teardown "$S" || true
  fi
}

# ---------------------------------------------------------------- commands

cmd_list() {
  local S
  [ -d "$LUMRIG_RUN" ] || return 0
  for S in "$LUMRIG_RUN"/*/; do
    S=${S%/}
    [ -d "$S" ] || continue
    local st
    st=$(read_file "$S/status")
    is_stale "$S" && st="$st (stale)"
    printf '%s\t%s\n' "$(basename "$S")" "$st"
  done
}

cmd_info() {
  local id=${1:?info: which television?} S d
  S=$(need_rig "$id")
  # shellcheck disable=SC1090
  source "$S/desc.sh"
  printf 'id\t%s\nstate\t%s\nholder\t%s\nnetns\t%s (%s)\n' "$id" "$S" "$(read_file "$S/holder")" \
    "$(read_file "$S/netns")" "$(read_file "$S/netmode")"
  for d in "${DISKS[@]}"; do
    printf 'disk\t%s\tloop=%s\tplugged=%s\tdev=%s\n' "$d" "$(read_file "$S/disks/$d/loop")" \
      "$(read_file "$S/disks/$d/plugged")" "$(read_file "$S/disks/$d/dev")"
  done
}

# Runs a command inside the television in the foreground; its exit status
# is returned. The working folder is kept when it exists inside.
cmd_exec() {
  local id=${1:?exec: which television?} S
  shift
  [ "${1:-}" = -- ] && shift
  [ $# -gt 0 ] || die "exec: what to run? (rig exec ID -- CMD ...)"
  S=$(need_rig "$id")
  # exec all the way down, so that the pid of this command is the pid of CMD.
  enter_cmd "$S" /bin/sh -c 'cd "$0" 2>/dev/null || cd /; exec "$@"' "$PWD" "$@"
  exec "${ENTER[@]}"
}

# Starts a command inside the television in the background (a daemon); its
# output goes to $STATE/logs/NAME.log. Prints its pid. It is stopped by
# 'rig stop' or when the television goes down.
cmd_run() {
  local id=${1:?run: which television?} name="" S
  shift
  while [ $# -gt 0 ]; do
    case $1 in
      --name) name=${2:?}; shift ;;
      --) shift; break ;;
      *) break ;;
    esac
    shift
  done
  [ $# -gt 0 ] || die "run: what to run? (rig run ID [--name NAME] -- CMD ...)"
  S=$(need_rig "$id")
  [ -n "$name" ] || name=$(basename "$1")
  [[ $name =~ ^[A-Za-z0-9_.-]+$ ]] || die "run: bad name '$name'"
  mkdir -p "$S/procs"
  if [ -f "$S/procs/$name" ] && ident_alive "$(read_file "$S/procs/$name")"; then
    die "run: '$name' runs already in $id"
  fi
  local pid
  holder_pid "$S" >/dev/null
  setsid "$S/lib/rig" exec "$id" -- "$@" </dev/null >>"$S/logs/$name.log" 2>&1 &
  pid=$!
  ident_of "$pid" >"$S/procs/$name" || true
  log_event "$S" "run $name pid=$pid: $*"
  printf '%s\n' "$pid"
}

cmd_stop() {
  local id=${1:?stop: which television?} name=${2:?stop: which process name?} S h p i
  S=$(need_rig "$id")
  h=$(read_file "$S/procs/$name")
  [ -n "$h" ] || die "stop: no process '$name' in $id"
  if ident_alive "$h"; then
    p=$(ident_pid "$h")
    kill -TERM "$p" 2>/dev/null || true
    for i in $(seq 1 100); do
      ident_alive "$h" || break
      sleep 0.05
    done
    ident_alive "$h" && kill -KILL "$p" 2>/dev/null
  fi
  rm -f "$S/procs/$name"
  log_event "$S" "stop $name"
}

cmd_plug() {
  local id=${1:?plug: which television?} disk=${2:?plug: which disk?} S
  shift 2
  S=$(need_rig "$id")
  with_lock "$S" inside "$S" plug "$disk" "$@"
}

cmd_unplug() {
  local id=${1:?unplug: which television?} disk=${2:?unplug: which disk?} S
  shift 2
  S=$(need_rig "$id")
  with_lock "$S" inside "$S" unplug "$disk" "$@"
}

cmd_sync() {
  local id=${1:?sync: which television?} S
  S=$(need_rig "$id")
  with_lock "$S" inside "$S" sync
}

cmd_mtp_add() {
  local id=${1:?mtp-add: which television?} S files=""
  shift
  S=$(need_rig "$id")
  local -a args=()
  while [ $# -gt 0 ]; do
    case $1 in
      --files)
        # The phone's files are copied from the host into the television.
        local src=${2:?--files needs a folder} stage
        [ -d "$src" ] || die "mtp-add: --files '$src' is not a folder"
        stage=$(mktemp -d "$S/mtp/stage.XXXXXX")
        cp -R -- "$src/." "$stage/"
        files=$stage
        args+=(--files "$IN_STATE/mtp/$(basename "$stage")")
        shift
        ;;
      *) args+=("$1") ;;
    esac
    shift
  done
  local rc=0
  with_lock "$S" inside "$S" mtp-add "${args[@]}" || rc=$?
  [ -n "$files" ] && rm -rf "$files"
  return $rc
}

cmd_mtp_remove() {
  local id=${1:?mtp-remove: which television?} S
  shift
  S=$(need_rig "$id")
  with_lock "$S" inside "$S" mtp-remove "$@"
}

cmd_uevent() {
  local id=${1:?uevent: which television?} S
  shift
  S=$(need_rig "$id")
  inside "$S" uevent "$@"
}

cmd_listen() {
  local id=${1:?listen: which television?} S
  shift
  S=$(need_rig "$id")
  enter_rig "$S" "$IN_STATE/tools/uevent_listen" "$@"
}

cmd_fat_adapter() {
  local id=${1:?fat-adapter: which television?} mode=${2:?fat-adapter: on or off?} S
  S=$(need_rig "$id")
  case $mode in
    on) rm -f "$S/fat-adapter-off" ;;
    off) : >"$S/fat-adapter-off" ;;
    *) die "fat-adapter: on or off, not '$mode'" ;;
  esac
  log_event "$S" "fat-adapter $mode"
}

# Prints the host path of a path inside the television (for a test to reach
# a daemon's socket or files). /run inside is $STATE/run on the host.
cmd_path() {
  local id=${1:?path: which television?} p=${2:?path: which path inside?} S
  S=$(need_rig "$id")
  [[ $p == /* ]] || die "path: '$p' is not absolute"
  case $p in
    /run | /run/*) printf '%s\n' "$S/run${p#/run}" ;;
    *) printf '/proc/%s/root%s\n' "$(holder_pid "$S")" "$p" ;;
  esac
}

cmd_events() {
  local id=${1:?events: which television?} S
  S=$(need_rig "$id")
  cat "$S/events.log"
}

# up, run a command on the host with LUMRIG_ID set, down - whatever happens.
cmd_session() {
  local -a upargs=()
  while [ $# -gt 0 ] && [ "$1" != -- ]; do
    upargs+=("$1")
    shift
  done
  [ "${1:-}" = -- ] && shift
  [ $# -gt 0 ] || die "session: what to run? (rig session DESC -- CMD ...)"
  require_root
  local id rc=0
  id=$("$RIG_HOME/rig" up --owner $$ "${upargs[@]}") || exit 1
  trap '"$RIG_HOME/rig" down "$id"' EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
  LUMRIG_ID=$id LUMRIG="$RIG_HOME/rig" "$@" || rc=$?
  exit $rc
}
