# Helpers shared by every part of the rig (sourced by rig/rig).

# Where each television keeps its state: images, logs, runtime facts.
LUMRIG_RUN=${LUMRIG_RUN:-/run/lumrig}
LUMRIG_VERBOSE=${LUMRIG_VERBOSE:-0}

# The state directory as the processes inside the television see it.
IN_STATE=/.rig/state

die() {
  printf 'rig: %s\n' "$*" >&2
  exit 1
}

warn() {
  printf 'rig: warning: %s\n' "$*" >&2
}

note() {
  if [ "$LUMRIG_VERBOSE" = 1 ]; then printf 'rig: %s\n' "$*" >&2; fi
  return 0
}

require_root() {
  [ "$(id -u)" = 0 ] || die "needs root (namespaces, loop devices and mounts); running as uid $(id -u)"
}

valid_id() {
  [[ $1 =~ ^[A-Za-z0-9][A-Za-z0-9_.-]{0,31}$ ]]
}

state_of() {
  printf '%s/%s\n' "$LUMRIG_RUN" "$1"
}

# Start time of a process (clock ticks after boot); fails if there is none.
proc_start() {
  local s
  read -r s 2>/dev/null <"/proc/$1/stat" || return 1
  s=${s##*) }
  # shellcheck disable=SC2086
  set -- $s
  [ -n "${20:-}" ] || return 1
  printf '%s\n' "${20}"
}

# "PID STARTTIME": names one process for as long as it lives, even when the
# pid is reused later.
ident_of() {
  local st
  st=$(proc_start "$1") || return 1
  printf '%s %s\n' "$1" "$st"
}

# True while the process named by an ident ("PID STARTTIME") runs (zombies
# count as gone: they hold no namespace and no file any more).
ident_alive() {
  local pid=${1%% *} start=${1#* } now s
  [[ $pid =~ ^[0-9]+$ ]] || return 1
  now=$(proc_start "$pid") || return 1
  [ "$now" = "$start" ] || return 1
  read -r s 2>/dev/null <"/proc/$pid/stat" || return 1
  s=${s##*) }
  [ "${s%% *}" != Z ]
}

ident_pid() {
  printf '%s\n' "${1%% *}"
}

# Contents of a small file (empty if there is none), without a fork.
read_file() {
  local v=""
  # (read, not $(<file): bash exits on a failing $(<file) under set -e)
  [ -f "$1" ] && { IFS= read -r -d '' v <"$1" || true; } 2>/dev/null
  v=${v%$'\n'}
  printf '%s' "$v"
}

now_s() {
  date +%s.%N
}

# Appends one line to the television's action log (what the rig did when).
log_event() {
  local S=$1
  shift
  printf '%s %s\n' "$(date +%H:%M:%S.%N | cut -c1-12)" "$*" >>"$S/events.log" 2>/dev/null || true
}

# Runs "$@" with an exclusive lock on the television (one change at a time).
with_lock() {
  local S=$1
  shift
  (
    flock -w 60 9 || die "could not lock $S"
    "$@"
  ) 9>>"$S/lock"
}
