# The host side of the rig: builds televisions and runs commands inside them.
# Everything here runs in the caller's namespaces; work inside a television
# goes through enter_rig (nsenter on its holder process).

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
