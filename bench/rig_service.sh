# Shared by the benchmarks that drive the service on the simulated
# television; sourced, not run. After `rig_service_up DESCRIPTION`:
#   $id      the television          $sock   the daemon's socket (host path)
#   $work    a scratch folder        $log    the daemon's log
#   $daemon_pid  the daemon's pid (host PID namespace)
#   ctl ARGS           a lumstoragectl call, output dropped
#   count NAME         events of that name so far
#   wait_count NAME N  waits until N of them have come
#   median N...        the middle one of the numbers
#   ms, us             the clock in milliseconds, microseconds
# Needs $top; `rig_service_args ROUNDS "$@"` then reads the script's
# arguments [BUILD_DIR] [ROUNDS] into $build and $rounds (ROUNDS is the
# default), sets $rig, and skips the benchmark when not run as root.
# Everything goes when the script exits.
# `rig_service_scratch` makes $work (and the clean-up) before the
# television, for files the description takes from the host; `rig_service_up`
# makes it when it is not there yet.
# `rig_service_unwatch` ends the event record, so that a measurement has no
# other subscriber than its own client; count and wait_count see no more.
# Extra environment for the daemon: RIG_SERVICE_ENV (words NAME=VALUE),
# properties to set first: RIG_SERVICE_PROPS (words KEY=VALUE).
# `rig_service_restart` starts the daemon again (with RIG_SERVICE_ENV as it
# is then) and a new event record.

rig_service_args() {
  build=$(cd "${2:-$top/build}" && pwd)
  rounds=${3:-$1}
  rig=$top/rig/rig
  if [ "$(id -u)" -ne 0 ]; then
    echo "$(basename "$0" .sh): SKIPPED (needs root for the simulated television)"
    exit 0
  fi
}

ms() { echo $(( $(date +%s%N) / 1000000 )); }
# Microseconds of the shell's own clock: reading it starts no process.
us() { echo "${EPOCHREALTIME/./}"; }

median() { printf '%s\n' "$@" | sort -n | awk '{ a[NR] = $1 } END { print a[int((NR + 1) / 2)] }'; }

rig_service_cleanup() {
  [ -n "${watcher:-}" ] && kill "$watcher" 2>/dev/null
  [ -n "${id:-}" ] && "$rig" down "$id" >/dev/null 2>&1
  [ -n "${work:-}" ] && rm -rf "$work"
  return 0
}

ctl() { "$build/tools/lumstoragectl" --socket "$sock" "$@" >/dev/null; }

# Counting and waiting use shell builtins only, so that the waiting itself
# starts no process and takes no CPU from the service it measures: the file
# is read with $(<...), and a read with a time-out on a pipe that stays empty
# stands for sleep.
exec {idle_fd}<> <(:)
count() {
  local text rest first=0
  text=$(<"$events")
  rest=${text//$'\n'"$1 "/}
  [ "${text#"$1 "}" != "$text" ] && first=1  # the first line has no line feed before it
  echo $(( (${#text} - ${#rest}) / (${#1} + 2) + first ))
}
wait_count() {
  local _i
  for ((_i = 0; _i < 24000; _i++)); do
    [ "$(count "$1")" -ge "$2" ] && return 0
    read -r -t 0.002 -u "$idle_fd" || true
  done
  echo "$(basename "$0"): no $1" >&2
  exit 1
}

rig_service_scratch() {
  [ -n "${work:-}" ] && return 0
  work=$(mktemp -d)
  trap rig_service_cleanup EXIT
  # bash runs no EXIT trap when a signal ends it: these turn INT and TERM
  # into an exit (once the command in the foreground has ended).
  trap 'exit 130' INT
  trap 'exit 143' TERM
}

rig_service_up() {
  rig_service_scratch
  id=$(printf '%b' "$1" | "$rig" up --owner $$ -)
  local kv props=""
  for kv in ${RIG_SERVICE_PROPS:-}; do
    props="$props printf '%s' '${kv#*=}' > /run/properties/${kv%%=*};"
  done
  "$rig" exec "$id" -- sh -c "mkdir -p /run/properties; $props"
  rig_service_start
}

# Stops the daemon and starts it again with RIG_SERVICE_ENV as it is now;
# the event record starts anew.
rig_service_unwatch() {
  [ -n "${watcher:-}" ] && kill "$watcher" 2>/dev/null
  watcher=""
}

rig_service_restart() {
  rig_service_unwatch
  "$rig" stop "$id" lumstoraged >/dev/null
  rig_service_start
}

rig_service_start() {
  "$rig" exec "$id" -- rm -f /run/lumstorage.sock
  # rig exec replaces itself down to the command, so the pid `run` prints
  # is the daemon's own.
  # shellcheck disable=SC2086
  daemon_pid=$("$rig" run "$id" --name lumstoraged -- env LMDROID_PROPERTY_DIR=/run/properties ${RIG_SERVICE_ENV:-} \
    "$build/host/lumstoraged" --socket /run/lumstorage.sock)
  sock=$("$rig" path "$id" /run/lumstorage.sock)
  for _ in $(seq 100); do [ -S "$sock" ] && break; sleep 0.05; done
  log=/run/lumrig/$id/logs/lumstoraged.log
  events=$work/events.$(date +%s%N)
  : >"$events"
  "$build/tools/lumstoragectl" --socket "$sock" watch >"$events" 2>/dev/null &
  watcher=$!
  until [ "$(count LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES)" -ge 1 ]; do ctl get-storage-volumes; sleep 0.1; done
}
