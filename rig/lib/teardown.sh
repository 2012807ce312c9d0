# Taking televisions down: their processes, loop devices and state, on
# request, when their owner goes, or left over from a crash.

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
