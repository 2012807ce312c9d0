# Plugging and unplugging disks: sdX nodes, their sysfs and /proc entries and
# the uevents that announce them.

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

disk_ordinal() {
  local d=$1 i=1 x
  for x in "${DISKS[@]}"; do
    [ "$x" = "$d" ] && {
      echo $i
      return
    }
    i=$((i + 1))
  done
  return 1
}

# Finds a described disk by name or by its current sdX name.
resolve_disk() {
  local want=$1 x
  for x in "${DISKS[@]}"; do
    [ "$x" = "$want" ] && {
      echo "$x"
      return 0
    }
  done
  for x in "${DISKS[@]}"; do
    [ "$(read_file "$IN_STATE/disks/$x/plugged")" = yes ] && [ "$(read_file "$IN_STATE/disks/$x/dev")" = "$want" ] && {
      echo "$x"
      return 0
    }
  done
  die "no disk '$want' in this television (disks: ${DISKS[*]})"
}

used_devs() {
  local x
  for x in "${DISKS[@]}"; do
    if [ "$(read_file "$IN_STATE/disks/$x/plugged")" = yes ]; then
      read_file "$IN_STATE/disks/$x/dev"
      echo
    fi
  done
}

plug_args() {
  QUIET=no
  USB_EVENTS=no
  while [ $# -gt 0 ]; do
    case $1 in
      --quiet) QUIET=yes ;;
      --usb-events) USB_EVENTS=yes ;;
      *) die "unknown option '$1' (--quiet, --usb-events)" ;;
    esac
    shift
  done
}

in_plug() {
  load_desc
  local d
  d=$(resolve_disk "$1")
  shift
  plug_args "$@"
  local D=$IN_STATE/disks/$d
  [ "$(read_file "$D/plugged")" = yes ] && die "disk '$d' is plugged already (as $(read_file "$D/dev"))"
  local loop lname dev port host
  loop=$(read_file "$D/loop")
  lname=${loop#/dev/}
  [ -e "/.rig/hostsys/block/$lname" ] || die "disk '$d': its loop device $loop has gone"
  dev=${DK[$d.dev]:-}
  local used
  used=$(used_devs)
  if [ -n "$dev" ]; then
    grep -qx "$dev" <<<"$used" && die "disk '$d': $dev is taken by another plugged disk"
  else
    local l
    for l in b c d e f g h i j k l m n o p q r s t u v w x y z; do
      grep -qx "sd$l" <<<"$used" || {
        dev=sd$l
        break
      }
    done
    [ -n "$dev" ] || die "disk '$d': no free sdX name"
  fi
  port=${DK[$d.port]:-$(disk_ordinal "$d")}
  host=$(read_file "$IN_STATE/hostctr")
  echo $((host + 1)) >"$IN_STATE/hostctr"

  # Partitions as the kernel sees them now (also after the service changed
  # the table).
  local nums="" p
  # The kernel does not always re-read a changed table by itself (BLKRRPART
  # from sfdisk left no partitions here); partx brings it up to date.
  make_loop_nodes /dev /.rig/hostsys/block "$lname"
  partx -u "/dev/$lname" >/dev/null 2>&1 || true
  make_loop_nodes /dev /.rig/hostsys/block "$lname"
  for p in "/.rig/hostsys/block/$lname/${lname}p"*; do
    [ -e "$p/partition" ] && nums="$nums $(cat "$p/partition")"
  done
  nums=$(printf '%s\n' $nums | sort -n | tr '\n' ' ')

  # /dev/sdX and /dev/sdXN
  local devno
  devno=$(cat "/.rig/hostsys/block/$lname/dev")
  mknod_dev "/dev/$dev" b "${devno%%:*}" "${devno##*:}" 0660
  chgrp disk "/dev/$dev" 2>/dev/null || true
  local n
  rm -f "$D"/pdev.*
  for n in $nums; do
    devno=$(cat "/.rig/hostsys/block/$lname/${lname}p$n/dev")
    mknod_dev "/dev/$dev$n" b "${devno%%:*}" "${devno##*:}" 0660
    chgrp disk "/dev/$dev$n" 2>/dev/null || true
    echo "$devno" >"$D/pdev.$n"
  done

  sys_disk "$d" "$dev" "$port" "$host" "$lname" "$nums"
  echo "$dev" >"$D/dev"
  echo "$port" >"$D/port"
  echo "$host" >"$D/host"
  echo "$nums" >"$D/parts"
  echo yes >"$D/plugged"
  regen_proc
  log_event "$IN_STATE" "plug $d as $dev (loop $loop, partitions:${nums:+ }$nums)"
  [ "$QUIET" = yes ] || disk_events add "$d"
  echo "$dev"
}

in_unplug() {
  load_desc
  local d
  d=$(resolve_disk "$1")
  shift
  plug_args "$@"
  local D=$IN_STATE/disks/$d dev port host n
  [ "$(read_file "$D/plugged")" = yes ] || die "disk '$d' is not plugged"
  dev=$(read_file "$D/dev")
  port=$(read_file "$D/port")
  host=$(read_file "$D/host")
  # The television forgets the disk first, then tells: when the service
  # hears "remove", /dev, /proc and /sys no longer show it.
  echo no >"$D/plugged"
  regen_proc
  local loop pdevs=""
  loop=$(read_file "$D/loop")
  for n in $(read_file "$D/parts"); do pdevs="$pdevs $(read_file "$D/pdev.$n")"; done
  sys_forget_disk "$dev" "$(cat "/.rig/hostsys/block/${loop#/dev/}/dev")" "$pdevs"
  rm -rf "${USB_ROOT:?}/1-$port"
  rm -f "/dev/$dev"
  for n in $(read_file "$D/parts"); do rm -f "/dev/$dev$n"; done
  log_event "$IN_STATE" "unplug $d ($dev)"
  [ "$QUIET" = yes ] || disk_events remove "$d"
  rm -f "$D/dev"
  echo "$dev"
}

# Re-reads the partitions of every plugged disk (after the service
# repartitioned one): nodes, sysfs and /proc follow the kernel's view.
in_sync() {
  load_desc
  local d
  for d in "${DISKS[@]}"; do
    [ "$(read_file "$IN_STATE/disks/$d/plugged")" = yes ] || continue
    in_unplug "$d" --quiet >/dev/null
    local fixed=${DK[$d.dev]:-}
    in_plug "$d" --quiet >/dev/null
    : "$fixed"
  done
}
