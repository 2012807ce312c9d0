# Shared by the benchmarks that drive the service on the simulated
# television; sourced, not run. After `rig_service_up DESCRIPTION`:
#   $id      the television          $sock   the daemon's socket (host path)
#   $work    a scratch folder        $log    the daemon's log
#   ctl ARGS           a lumstoragectl call, output dropped
#   count NAME         events of that name so far
#   wait_count NAME N  waits until N of them have come
# Needs $top, $build and $rig; everything goes when the script exits.
# Extra environment for the daemon: RIG_SERVICE_ENV (words NAME=VALUE),
# properties to set first: RIG_SERVICE_PROPS (words KEY=VALUE).

ms() { echo $(( $(date +%s%N) / 1000000 )); }

rig_service_cleanup() {
  [ -n "${watcher:-}" ] && kill "$watcher" 2>/dev/null
  [ -n "${id:-}" ] && "$rig" down "$id" >/dev/null 2>&1
  [ -n "${work:-}" ] && rm -rf "$work"
  return 0
}

ctl() { "$build/tools/lumstoragectl" --socket "$sock" "$@" >/dev/null; }
count() { grep -c "^$1 " "$events" || true; }
wait_count() {
  for _ in $(seq 24000); do [ "$(count "$1")" -ge "$2" ] && return 0; sleep 0.005; done
  echo "$(basename "$0"): no $1" >&2
  exit 1
}

rig_service_up() {
  id=$(printf '%b' "$1" | "$rig" up --owner $$ -)
  work=$(mktemp -d)
  trap rig_service_cleanup EXIT
  local kv props=""
  for kv in ${RIG_SERVICE_PROPS:-}; do
    props="$props printf '%s' '${kv#*=}' > /run/properties/${kv%%=*};"
  done
  "$rig" exec "$id" -- sh -c "mkdir -p /run/properties; $props"
  # shellcheck disable=SC2086
  "$rig" run "$id" --name lumstoraged -- env LMDROID_PROPERTY_DIR=/run/properties ${RIG_SERVICE_ENV:-} \
    "$build/host/lumstoraged" --socket /run/lumstorage.sock >/dev/null
  sock=$("$rig" path "$id" /run/lumstorage.sock)
  for _ in $(seq 100); do [ -S "$sock" ] && break; sleep 0.05; done
  log=/run/lumrig/$id/logs/lumstoraged.log
  events=$work/events
  "$build/tools/lumstoragectl" --socket "$sock" watch >"$events" 2>/dev/null &
  watcher=$!
  until [ "$(count LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES)" -ge 1 ]; do ctl get-storage-volumes; sleep 0.1; done
}
