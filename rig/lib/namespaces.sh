# Namespaces and mounts: the holder process that builds a television's file
# system view inside its own mount, IPC and network namespaces, and the way
# into them from the host (nsenter on the holder).
#
# The file system view built by in_holder:
#   /                 a tmpfs holding bind mounts of the host's top folders
#                     (/usr and /etc read-only)
#   /dev              tmpfs: null, zero, full, random, urandom, tty, fuse,
#                     loop-control, the television's loop nodes, sdX nodes,
#                     a private devpts, /dev/shm (tmpfs), /dev/mqueue (mqueue
#                     of the television's own IPC namespace)
#   /proc             a procfs, with partitions and diskstats replaced by the
#                     rig's files and a tmpfs on /proc/driver (mptp stand-in)
#   /sys              the host's sysfs, with tmpfs on /sys/block and on
#                     /sys/devices/platform (the USB-shaped device tree)
#   /run              $STATE/run on the host (daemon sockets are reachable)
#   /mnt              tmpfs with /mnt/pvr/shared
#   /sbin             links to the real tools plus mount.vfat and mount.mptpfs
#   /usr/bin/mount    the listing adapter (helpers/mount)
#   /lumicore/middleware/bin/mkntfs   the real mkntfs
#   /.rig/state       $STATE (bind), /.rig/id the television's id,
#   /.rig/hostsys, /.rig/hostproc     unmodified sysfs and procfs,
#   /.rig/real-mount  the real mount(8)

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

mknod_dev() {
  local path=$1 kind=$2 maj=$3 min=$4 mode=$5
  rm -f "$path"
  mknod -m "$mode" "$path" "$kind" "$maj" "$min"
}

# Creates /dev nodes for loop device LNAME and its partitions, as the
# sysfs in SYSBLOCK shows them.
make_loop_nodes() {
  local devdir=$1 sysblock=$2 lname=$3 p dev
  dev=$(cat "$sysblock/$lname/dev")
  mknod_dev "$devdir/$lname" b "${dev%%:*}" "${dev##*:}" 0660
  rm -f "$devdir/${lname}p"*
  for p in "$sysblock/$lname/${lname}p"*; do
    [ -e "$p/dev" ] || continue
    dev=$(cat "$p/dev")
    mknod_dev "$devdir/$(basename "$p")" b "${dev%%:*}" "${dev##*:}" 0660
  done
}

# The holder: builds the television's file system view, pivots into it,
# reports ready and sleeps until the television is taken down.
in_holder() {
  local id=$1 S R
  S=$(state_of "$id")
  R=$S/root
  trap 'echo "setup failed at line $LINENO: $BASH_COMMAND" >"$S/failed"' ERR
  set -eE

  mount --make-rprivate /
  mkdir -p "$R"
  mount -t tmpfs -o mode=0755,size=32m lumrig-root "$R"

  # The host's folders, except those the television owns.
  local e name
  for e in /* /.[!.]*; do
    [ -e "$e" ] || [ -L "$e" ] || continue
    name=${e#/}
    case $name in dev | proc | sys | run | mnt | lumicore | sbin | .rig) continue ;; esac
    if [ -L "$e" ]; then
      ln -s "$(readlink "$e")" "$R/$name"
    elif [ -d "$e" ]; then
      mkdir "$R/$name"
      mount --rbind "$e" "$R/$name"
    elif [ -f "$e" ]; then
      : >"$R/$name"
      mount --bind "$e" "$R/$name"
    fi
  done
  for name in usr etc; do
    [ -d "$R/$name" ] && ! [ -L "$R/$name" ] && mount -o remount,bind,ro "$R/$name"
  done

  # The rig's own corner.
  mkdir -p "$R/.rig/state" "$R/.rig/hostsys" "$R/.rig/hostproc" "$R/.rig/mtp" "$R/.rig/work"
  printf '%s\n' "$id" >"$R/.rig/id"
  mount --bind "$S" "$R/.rig/state"
  mount --rbind /sys "$R/.rig/hostsys"
  mount -t proc proc "$R/.rig/hostproc"
  local mount_bin
  mount_bin=$(readlink -f "$(command -v mount)")
  : >"$R/.rig/real-mount"
  mount --bind "$mount_bin" "$R/.rig/real-mount"
  [ -e "$R$mount_bin" ] && mount --bind "$S/lib/helpers/mount" "$R$mount_bin"
  local umount_bin
  umount_bin=$(readlink -f "$(command -v umount)")
  : >"$R/.rig/real-umount"
  mount --bind "$umount_bin" "$R/.rig/real-umount"
  [ -e "$R$umount_bin" ] && mount --bind "$S/lib/helpers/umount" "$R$umount_bin"

  # /dev
  mkdir -p "$R/dev"
  mount -t tmpfs -o mode=0755,size=1m,nosuid lumrig-dev "$R/dev"
  mknod_dev "$R/dev/null" c 1 3 0666
  mknod_dev "$R/dev/zero" c 1 5 0666
  mknod_dev "$R/dev/full" c 1 7 0666
  mknod_dev "$R/dev/random" c 1 8 0666
  mknod_dev "$R/dev/urandom" c 1 9 0666
  mknod_dev "$R/dev/tty" c 5 0 0666
  mknod_dev "$R/dev/fuse" c 10 229 0666
  mknod_dev "$R/dev/loop-control" c 10 237 0600
  ln -s /proc/self/fd "$R/dev/fd"
  ln -s /proc/self/fd/0 "$R/dev/stdin"
  ln -s /proc/self/fd/1 "$R/dev/stdout"
  ln -s /proc/self/fd/2 "$R/dev/stderr"
  mkdir -p "$R/dev/pts" "$R/dev/shm" "$R/dev/mqueue"
  mount -t devpts -o newinstance,ptmxmode=0666,mode=0620 devpts "$R/dev/pts"
  ln -s pts/ptmx "$R/dev/ptmx"
  mount -t tmpfs -o mode=1777,nosuid,nodev lumrig-shm "$R/dev/shm"
  mount -t mqueue -o nosuid,nodev,noexec mqueue "$R/dev/mqueue"
  local dev img
  while read -r _ dev img; do
    [ -n "$dev" ] && make_loop_nodes "$R/dev" /sys/block "${dev#/dev/}"
  done <"$S/loops"

  # /proc: a procfs of its own, with the rig's partitions, diskstats and
  # driver/mptp laid over it.
  printf 'major minor  #blocks  name\n\n' >"$S/fake/partitions"
  : >"$S/fake/diskstats"
  mkdir -p "$R/proc"
  if [ "${LUMRIG_PROC_MODE:-bind}" = bind ] && [ -d /proc/driver ]; then
    echo bind >"$S/procmode"
    mount -t proc proc "$R/proc"
    mount --bind "$S/fake/partitions" "$R/proc/partitions"
    mount --bind "$S/fake/diskstats" "$R/proc/diskstats"
    mount -t tmpfs -o mode=0755,size=1m lumrig-driver "$R/proc/driver"
  else
    # No /proc/driver to lay a tmpfs on: a tmpfs /proc holding links to a
    # real procfs (processes started later have no /proc/PID entry).
    echo farm >"$S/procmode"
    mount -t tmpfs -o mode=0555,size=1m lumrig-proc "$R/proc"
    for e in /proc/*; do
      name=${e#/proc/}
      case $name in partitions | diskstats | driver) continue ;; esac
      ln -s "/.rig/hostproc/$name" "$R/proc/$name"
    done
    ln -s /.rig/state/fake/partitions "$R/proc/partitions"
    ln -s /.rig/state/fake/diskstats "$R/proc/diskstats"
    mkdir -p "$R/proc/driver"
  fi
  mkdir -p "$R/proc/driver/mptp"
  : >"$R/proc/driver/mptp/devices"

  # /sys: the host's, with the rig's block devices and USB tree.
  mkdir -p "$R/sys"
  mount --rbind /sys "$R/sys"
  mount -t tmpfs -o mode=0755,size=4m lumrig-sysblock "$R/sys/block"
  mount -t tmpfs -o mode=0755,size=4m lumrig-platform "$R/sys/devices/platform"
  for e in /sys/devices/platform/*; do
    ln -s "/.rig/hostsys/devices/platform/${e##*/}" "$R/sys/devices/platform/${e##*/}"
  done
  # Tools find a device's sysfs folder through /sys/dev/block/MAJ:MIN (libblkid
  # lists partitions that way): a plugged disk's numbers lead to its USB-shaped
  # folder; all other numbers lead to the host's.
  mount -t tmpfs -o mode=0755,size=1m lumrig-devblock "$R/sys/dev/block"
  for e in /sys/dev/block/*; do
    ln -s "/.rig/hostsys/dev/block/${e##*/}" "$R/sys/dev/block/${e##*/}"
  done
  mount -t tmpfs -o mode=0755,size=1m lumrig-classblock "$R/sys/class/block"
  sys_root_hub "$R"

  # /run, /mnt, /lumicore
  mkdir -p "$R/run" "$R/mnt" "$R/lumicore/middleware/bin"
  mount --bind "$S/run" "$R/run"
  mount -t tmpfs -o mode=0755,size=1m lumrig-mnt "$R/mnt"
  mkdir -p "$R/mnt/pvr/shared"
  ln -s "$(readlink -f "$(command -v mkntfs)")" "$R/lumicore/middleware/bin/mkntfs"

  # /sbin: links to the real tools, plus the mount helpers of the adapters.
  local realsbin
  realsbin=$(readlink -f /sbin)
  mkdir -p "$R/sbin"
  if [ "$realsbin" = /usr/sbin ]; then
    for e in /usr/sbin/*; do ln -s "$e" "$R/sbin/${e##*/}"; done
  else
    mkdir -p "$R/.rig/sbin"
    mount --bind "$realsbin" "$R/.rig/sbin"
    for e in "$realsbin"/*; do ln -s "/.rig/sbin/${e##*/}" "$R/sbin/${e##*/}"; done
  fi
  ln -sfn "$IN_STATE/lib/helpers/mount.vfat" "$R/sbin/mount.vfat"
  ln -sfn "$IN_STATE/lib/helpers/mount.mptpfs" "$R/sbin/mount.mptpfs"

  # Into the new root; the old one goes away.
  cd "$R"
  mkdir -p .rig/oldroot
  pivot_root . .rig/oldroot
  cd /
  umount -l /.rig/oldroot
  rmdir /.rig/oldroot

  trap - ERR
  set +eE
  printf '%s\n' "$$" >"$IN_STATE/ready"
  exec sleep infinity
}
