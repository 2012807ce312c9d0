# The inside of a television: runs in its mount, IPC and network namespaces
# (the holder process, and 'rig _in ...' started through nsenter).
#
# The file system view built by in_setup:
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

USB_HOST=/sys/devices/platform/ehci-platform.0
USB_ROOT=$USB_HOST/usb1
DEVPATH_ROOT=/devices/platform/ehci-platform.0/usb1

# ---------------------------------------------------------------- setup

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

# The root hub of the USB host controller the disks hang on.
sys_root_hub() {
  local R=$1 hub=$1$USB_ROOT
  mkdir -p "$hub"
  wr "$hub/idVendor" 1d6b
  wr "$hub/idProduct" 0002
  wr "$hub/manufacturer" "Linux ehci_hcd"
  wr "$hub/product" "EHCI Host Controller"
  wr "$hub/serial" ehci-platform.0
  wr "$hub/busnum" 1
  wr "$hub/devnum" 1
  wr "$hub/speed" 480
  wr "$hub/bDeviceClass" 09
  wr "$hub/uevent" "$(printf 'MAJOR=189\nMINOR=0\nDEVNAME=bus/usb/001/001\nDEVTYPE=usb_device\nPRODUCT=1d6b/2/606\nTYPE=9/0/1\nBUSNUM=001\nDEVNUM=001')"
}

# wr FILE VALUE: one sysfs-like attribute (value and a newline).
wr() {
  [ -d "${1%/*}" ] || mkdir -p "${1%/*}"
  printf '%s\n' "$2" >"$1"
}

# ---------------------------------------------------------------- building

load_desc() {
  # shellcheck disable=SC1090
  source "$IN_STATE/desc.sh"
}

# step DISK STEP CMD...: runs CMD; on failure names the disk and the step.
step() {
  local disk=$1 what=$2 out
  shift 2
  if ! out=$("$@" 2>&1); then
    die "disk '$disk': step '$what': $(printf '%s' "$out" | grep -v '^[[:space:]]*$' | tail -n 4 | tr '\n' ' ')"
  fi
}

# Node of the i-th described partition of disk d (the whole disk for table=none).
part_node() {
  local d=$1 i=$2 loop
  loop=$(cat "$IN_STATE/disks/$d/loop")
  if [ "${DK[$d.table]}" = none ]; then
    printf '%s\n' "$loop"
  else
    printf '%sp%s\n' "$loop" "$(part_number "$d" "$i")"
  fi
}

# Sets the label of a fresh FAT file system to LABEL's bytes. mkfs.fat ran
# with a placeholder label, which it wrote into the boot sector (and its
# backup) and into the volume-label entry of the root folder; every copy
# gets the label's bytes, whatever code page they are in (mkfs.fat only takes
# labels it can convert). blkid reads LABEL from the root-folder entry.
set_fat_label() {
  local node=$1 placeholder=$2 label=$3 off padded esc found=0
  padded=$(printf '%s' "$label" | head -c 11 | od -An -v -tx1 | tr -d ' \n')
  while [ ${#padded} -lt 22 ]; do padded="${padded}20"; done
  esc=$(sed 's/../\\x&/g' <<<"$padded")
  for off in $(head -c 8M "$node" | LC_ALL=C grep -obUa "$placeholder" | cut -d: -f1); do
    printf '%b' "$esc" | dd of="$node" bs=1 seek="$off" conv=notrunc status=none
    found=$((found + 1))
  done
  [ "$found" -gt 0 ] || {
    echo "label placeholder not found"
    return 1
  }
  sync
}

# mkntfs -Q seeds its volume serial from the clock, so volumes made in the
# same second share it (and so their UUID): give each a random one, in the
# boot sector and in its backup (the sector after the last one it counts).
ntfs_new_serial() {
  local node=$1 bps ns esc
  bps=$(od -An -tu2 -j11 -N2 "$node" | tr -d ' ')
  ns=$(od -An -tu8 -j40 -N8 "$node" | tr -d ' ')
  esc=$(head -c 8 /dev/urandom | od -An -v -tx1 | tr -d ' \n' | sed 's/../\\x&/g')
  printf '%b' "$esc" | dd of="$node" bs=1 seek=72 conv=notrunc status=none
  printf '%b' "$esc" | dd of="$node" bs=1 seek=$((ns * bps + 72)) conv=notrunc status=none
  sync
}

make_fs() {
  local d=$1 i=$2 node=$3 fs=${PT[$1.$2.fs]} label=""
  local -a lab=()
  if [ -n "${PT[$d.$i.label]+x}" ]; then
    label=$(decode_value "${PT[$d.$i.label]}")
  fi
  case $fs in
    none) return 0 ;;
    vfat)
      local -a opt=(-I)
      [ -n "${PT[$d.$i.fat]:-}" ] && opt+=(-F "${PT[$d.$i.fat]}")
      if [ -n "$label" ]; then
        [ "$(printf '%s' "$label" | wc -c)" -le 11 ] || {
          echo "a FAT label holds at most 11 bytes"
          return 1
        }
        mkfs.fat "${opt[@]}" -n LUMRIGLABEL "$node" >/dev/null || return 1
        set_fat_label "$node" LUMRIGLABEL "$label"
      else
        mkfs.fat "${opt[@]}" "$node" >/dev/null
      fi
      ;;
    ntfs)
      [ -n "$label" ] && lab=(-L "$label")
      mkntfs -Q -F "${lab[@]}" "$node" >/dev/null || return 1
      ntfs_new_serial "$node"
      ;;
    ext2 | ext3 | ext4)
      [ -n "$label" ] && lab=(-L "$label")
      "mkfs.$fs" -F -q "${lab[@]}" "$node"
      ;;
    exfat)
      [ -n "$label" ] && lab=(-L "$label")
      mkfs.exfat "${lab[@]}" "$node" >/dev/null
      ;;
  esac
}

# Mounts partition i of disk d (the real drivers, or the FAT adapter), copies
# its staged files in and unmounts it again.
put_files() {
  local d=$1 i=$2 node=$3 fs=${PT[$1.$2.fs]} src mp
  src=$IN_STATE/stage/$d/$i
  [ -d "$src" ] || return 0
  mp=/.rig/work/$d-$i
  mkdir -p "$mp"
  case $fs in
    ext2 | ext3 | ext4) /.rig/real-mount -t "$fs" "$node" "$mp" || return 1 ;;
    vfat) LUMRIG_FAT_ADAPTER=on "$IN_STATE/lib/helpers/mount.vfat" "$node" "$mp" -o rw || return 1 ;;
    ntfs) ntfs-3g "$node" "$mp" || return 1 ;;
    *)
      echo "cannot put files on $fs: no driver for it here"
      return 1
      ;;
  esac
  local rc=0
  cp -R -- "$src/." "$mp/" || rc=1
  sync
  /.rig/real-mount --version >/dev/null
  umount "$mp" || rc=1
  rmdir "$mp"
  return $rc
}

# Damages a file system so that its repair tool can fix it (fixable) or not
# (unfixable); the volume keeps its type and label for blkid.
damage_fs() {
  local node=$1 fs=$2 how=$3
  case $fs in
    ext2 | ext3 | ext4)
      if [ "$how" = fixable ]; then
        # Wrong link count of the root folder, wrong free block count,
        # "not clean" state and a bad checksum of group descriptor 0: the
        # kernel refuses the volume ("Structure needs cleaning"), e2fsck -p
        # and e2fsck -y fix it.
        debugfs -w -f - "$node" <<'EOF' >/dev/null
set_inode_field <2> links_count 9
ssv free_blocks_count 123
ssv state 0
set_bg 0 checksum 0x1234
EOF
      else
        # An incompatible feature flag no e2fsck knows: it refuses the volume
        # (and so does the kernel).
        local off=$((1024 + 0x60)) cur
        cur=$(od -An -tu4 -j"$off" -N4 "$node" | tr -d ' ')
        debugfs -w -R "ssv feature_incompat $((cur | 0x10000000))" "$node" >/dev/null
      fi
      ;;
    ntfs)
      local bps spc mft mirr cs
      bps=$(od -An -tu2 -j11 -N2 "$node" | tr -d ' ')
      spc=$(od -An -tu1 -j13 -N1 "$node" | tr -d ' ')
      mft=$(od -An -tu8 -j48 -N8 "$node" | tr -d ' ')
      mirr=$(od -An -tu8 -j56 -N8 "$node" | tr -d ' ')
      cs=$((bps * spc))
      if [ "$how" = fixable ]; then
        # $MFTMirr no longer matches $MFT: ntfs-3g refuses to mount,
        # ntfsfix copies $MFT back over the mirror.
        dd if=/dev/zero of="$node" bs=1 seek=$((mirr * cs + 256)) count=64 conv=notrunc status=none
      else
        # Broken update sequence in record 0 of both $MFT and $MFTMirr:
        # neither copy can be read, ntfsfix gives up.
        local base
        for base in $((mft * cs)) $((mirr * cs)); do
          printf '\x55\xaa' | dd of="$node" bs=1 seek=$((base + 510)) conv=notrunc status=none
        done
      fi
      ;;
  esac
  sync
}

in_build() {
  load_desc
  local d i
  for d in "${DISKS[@]}"; do
    local n=${DK[$d.nparts]}
    for ((i = 1; i <= n; i++)); do
      local node fs=${PT[$d.$i.fs]}
      node=$(part_node "$d" "$i")
      [ -b "$node" ] || die "disk '$d': step 'mkfs (partition $i, $fs)': no device node $node"
      step "$d" "mkfs (partition $i, $fs)" make_fs "$d" "$i" "$node"
      step "$d" "files (partition $i, $fs)" put_files "$d" "$i" "$node"
      if [ -n "${PT[$d.$i.damage]:-}" ]; then
        step "$d" "damage (partition $i, $fs)" damage_fs "$node" "$fs" "${PT[$d.$i.damage]}"
      fi
    done
  done
}

# ---------------------------------------------------------------- plug

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

pad() {
  local s=$1 n=$2
  s=${s:0:$n}
  printf "%-${n}s" "$s"
}

# The sysfs of one plugged disk, USB-shaped:
# /sys/devices/platform/ehci-platform.0/usb1/1-P/1-P:1.0/hostH/targetH:0:0/H:0:0:0/block/sdX
# and /sys/block/sdX linking to it.
sys_disk() {
  local d=$1 dev=$2 port=$3 host=$4 lname=$5 nums=$6
  local usb=$USB_ROOT/1-$port intf=$USB_ROOT/1-$port/1-$port:1.0
  local scsi=$intf/host$host/target$host:0:0/$host:0:0:0
  local blk=$scsi/block/$dev hs=/.rig/hostsys/block/$lname
  local vid=${DK[$d.idVendor]:-0781} pid=${DK[$d.idProduct]:-5567}
  vid=${vid,,}
  pid=${pid,,}
  local ord
  ord=$(disk_ordinal "$d")
  local serial=${DK[$d.serial]:-$(printf 'LUMRIG%08d' "$ord")}
  local devnum=$((port + 1))

  wr "$usb/idVendor" "$vid"
  wr "$usb/idProduct" "$pid"
  wr "$usb/manufacturer" "${DK[$d.manufacturer]:-${DK[$d.vendor]:-SanDisk}}"
  wr "$usb/product" "${DK[$d.product]:-${DK[$d.model]:-Cruzer Blade}}"
  wr "$usb/serial" "$serial"
  wr "$usb/bcdDevice" 0100
  wr "$usb/busnum" 1
  wr "$usb/devnum" "$devnum"
  wr "$usb/devpath" "$port"
  wr "$usb/speed" 480
  wr "$usb/version" " 2.00"
  wr "$usb/bDeviceClass" 00
  wr "$usb/bNumInterfaces" " 1"
  wr "$usb/maxchild" 0
  wr "$usb/removable" removable
  wr "$usb/uevent" "$(printf 'MAJOR=189\nMINOR=%d\nDEVNAME=bus/usb/001/%03d\nDEVTYPE=usb_device\nDRIVER=usb\nPRODUCT=%x/%x/100\nTYPE=0/0/0\nBUSNUM=001\nDEVNUM=%03d' \
    "$((devnum - 1))" "$devnum" "$((16#$vid))" "$((16#$pid))" "$devnum")"
  wr "$intf/bInterfaceClass" 08
  wr "$intf/bInterfaceSubClass" 06
  wr "$intf/bInterfaceProtocol" 50
  wr "$intf/bInterfaceNumber" 00
  wr "$intf/bNumEndpoints" 02
  wr "$intf/uevent" "$(printf 'DEVTYPE=usb_interface\nDRIVER=usb-storage\nPRODUCT=%x/%x/100\nTYPE=0/0/0\nINTERFACE=8/6/80' "$((16#$vid))" "$((16#$pid))")"
  wr "$intf/host$host/uevent" "DEVTYPE=scsi_host"
  wr "$intf/host$host/target$host:0:0/uevent" "DEVTYPE=scsi_target"
  wr "$scsi/vendor" "$(pad "${DK[$d.vendor]:-SanDisk}" 8)"
  wr "$scsi/model" "$(pad "${DK[$d.model]:-Cruzer Blade}" 16)"
  wr "$scsi/rev" "$(pad "${DK[$d.rev]:-1.00}" 4)"
  wr "$scsi/type" 0
  wr "$scsi/scsi_level" 7
  wr "$scsi/state" running
  wr "$scsi/uevent" "$(printf 'DEVTYPE=scsi_device\nDRIVER=sd\nMODALIAS=scsi:t-0x00')"

  wr "$blk/dev" "$(cat "$hs/dev")"
  wr "$blk/size" "$(cat "$hs/size")"
  wr "$blk/removable" 1
  wr "$blk/ro" 0
  wr "$blk/range" 16
  wr "$blk/ext_range" 256
  wr "$blk/capability" 1
  wr "$blk/stat" "$(cat "$hs/stat")"
  wr "$blk/queue/logical_block_size" 512
  wr "$blk/queue/physical_block_size" 512
  wr "$blk/queue/hw_sector_size" 512
  wr "$blk/queue/rotational" 1
  local devno
  devno=$(cat "$hs/dev")
  wr "$blk/uevent" "$(printf 'MAJOR=%s\nMINOR=%s\nDEVNAME=%s\nDEVTYPE=disk' "${devno%%:*}" "${devno##*:}" "$dev")"
  mkdir -p "$blk/holders" "$blk/slaves"
  ln -sfn "../../../$host:0:0:0" "$blk/device"
  local n
  for n in $nums; do
    local pb=$blk/$dev$n ph=$hs/${lname}p$n pdev
    pdev=$(cat "$ph/dev")
    wr "$pb/dev" "$pdev"
    wr "$pb/partition" "$n"
    wr "$pb/start" "$(cat "$ph/start")"
    wr "$pb/size" "$(cat "$ph/size")"
    wr "$pb/ro" 0
    wr "$pb/alignment_offset" 0
    wr "$pb/discard_alignment" 0
    wr "$pb/stat" "$(cat "$ph/stat")"
    wr "$pb/uevent" "$(printf 'MAJOR=%s\nMINOR=%s\nDEVNAME=%s\nDEVTYPE=partition\nPARTN=%s' "${pdev%%:*}" "${pdev##*:}" "$dev$n" "$n")"
    ln -sfn "../../devices/platform/ehci-platform.0/usb1/1-$port/1-$port:1.0/host$host/target$host:0:0/$host:0:0:0/block/$dev/$dev$n" "/sys/dev/block/$pdev"
    ln -sfn "../../devices/platform/ehci-platform.0/usb1/1-$port/1-$port:1.0/host$host/target$host:0:0/$host:0:0:0/block/$dev/$dev$n" "/sys/class/block/$dev$n"
  done
  local rel=devices/platform/ehci-platform.0/usb1/1-$port/1-$port:1.0/host$host/target$host:0:0/$host:0:0:0/block/$dev
  ln -sfn "../$rel" "/sys/block/$dev"
  ln -sfn "../../$rel" "/sys/dev/block/$devno"
  ln -sfn "../../$rel" "/sys/class/block/$dev"
}

# After an unplug the device numbers lead to the host's folders again.
sys_forget_disk() {
  local dev=$1 devno=$2 pdevs=$3 x
  rm -f "/sys/block/$dev" "/sys/class/block/$dev" "/sys/class/block/$dev"[0-9]*
  for x in $devno $pdevs; do
    rm -f "/sys/dev/block/$x"
    [ -e "/.rig/hostsys/dev/block/$x" ] && ln -s "/.rig/hostsys/dev/block/$x" "/sys/dev/block/$x"
  done
  return 0
}

# Rewrites /proc/partitions and /proc/diskstats for the plugged disks (the
# counters are those of the loop devices at this moment).
regen_proc() {
  local x parts=$IN_STATE/fake/partitions.new stats=$IN_STATE/fake/diskstats.new
  printf 'major minor  #blocks  name\n\n' >"$parts"
  : >"$stats"
  local -a plugged=()
  for x in "${DISKS[@]}"; do
    [ "$(read_file "$IN_STATE/disks/$x/plugged")" = yes ] && plugged+=("$(read_file "$IN_STATE/disks/$x/dev") $x")
  done
  local entry
  while read -r entry; do
    [ -n "$entry" ] || continue
    local dev=${entry%% *} d=${entry#* } loop lname n
    loop=$(read_file "$IN_STATE/disks/$d/loop")
    lname=${loop#/dev/}
    local -a names=("$lname:$dev")
    for n in $(read_file "$IN_STATE/disks/$d/parts"); do names+=("${lname}p$n:$dev$n"); done
    local pair
    for pair in "${names[@]}"; do
      local from=${pair%%:*} to=${pair#*:} devno size
      devno=$(cat "/.rig/hostsys/class/block/$from/dev")
      size=$(cat "/.rig/hostsys/class/block/$from/size")
      printf '%4d  %7d %10d %s\n' "${devno%%:*}" "${devno##*:}" $((size / 2)) "$to" >>"$parts"
      awk -v f="$from" -v t="$to" '$3 == f { $3 = t; printf "%4d %7d %s", $1, $2, $3; for (i = 4; i <= NF; i++) printf " %s", $i; printf "\n" }' \
        /.rig/hostproc/diskstats >>"$stats"
    done
  done < <(printf '%s\n' "${plugged[@]}" | sort)
  # Same inode (the files are bind-mounted over /proc entries): rewrite in place.
  cat "$parts" >"$IN_STATE/fake/partitions"
  cat "$stats" >"$IN_STATE/fake/diskstats"
  rm -f "$parts" "$stats"
}

next_seqnum() {
  local n
  n=$(read_file "$IN_STATE/seqnum")
  n=$((${n:-0} + 1))
  echo "$n" >"$IN_STATE/seqnum"
  echo "$n"
}

# send_uevent HEADER KEY=VALUE...: the kernel's way (it adds SEQNUM) unless
# LUMRIG_UEVENT_MODE=direct or the kernel refuses; then sent to group 1 with
# the rig's own SEQNUM.
send_uevent() {
  local mode=${LUMRIG_UEVENT_MODE:-kernel}
  if [ "$mode" = kernel ]; then
    if "$IN_STATE/tools/uevent_send" "$@" 2>>"$IN_STATE/logs/uevent.log"; then
      log_event "$IN_STATE" "uevent $1"
      return 0
    fi
    warn "the kernel did not take the uevent; sending it to group 1 directly"
  fi
  "$IN_STATE/tools/uevent_send" --direct "$@" "SEQNUM=$(next_seqnum)" || return 1
  log_event "$IN_STATE" "uevent(direct) $1"
}

disk_events() {
  local action=$1 d=$2 dev port host lname devno usbpath devpath n
  dev=$(read_file "$IN_STATE/disks/$d/dev")
  port=$(read_file "$IN_STATE/disks/$d/port")
  host=$(read_file "$IN_STATE/disks/$d/host")
  lname=$(read_file "$IN_STATE/disks/$d/loop")
  lname=${lname#/dev/}
  devno=$(cat "/.rig/hostsys/block/$lname/dev")
  usbpath=$DEVPATH_ROOT/1-$port
  devpath=$usbpath/1-$port:1.0/host$host/target$host:0:0/$host:0:0:0/block/$dev
  local diskseq
  diskseq=$(cat "/.rig/hostsys/block/$lname/diskseq" 2>/dev/null || echo 0)
  local nums
  nums=$(read_file "$IN_STATE/disks/$d/parts")
  local vid=${DK[$d.idVendor]:-0781} pid=${DK[$d.idProduct]:-5567}
  local product
  product=$(printf '%x/%x/100' "$((16#$vid))" "$((16#$pid))")

  if [ "$action" = add ]; then
    if [ "$USB_EVENTS" = yes ]; then
      send_uevent "add@$usbpath" ACTION=add "DEVPATH=$usbpath" SUBSYSTEM=usb MAJOR=189 "MINOR=$port" \
        "DEVNAME=bus/usb/001/$(printf %03d $((port + 1)))" DEVTYPE=usb_device "PRODUCT=$product" TYPE=0/0/0 \
        BUSNUM=001 "DEVNUM=$(printf %03d $((port + 1)))"
      send_uevent "add@$usbpath/1-$port:1.0" ACTION=add "DEVPATH=$usbpath/1-$port:1.0" SUBSYSTEM=usb \
        DEVTYPE=usb_interface "PRODUCT=$product" TYPE=0/0/0 INTERFACE=8/6/80
    fi
    send_uevent "add@$devpath" ACTION=add "DEVPATH=$devpath" SUBSYSTEM=block "MAJOR=${devno%%:*}" \
      "MINOR=${devno##*:}" "DEVNAME=$dev" DEVTYPE=disk "DISKSEQ=$diskseq"
    for n in $nums; do
      local pdev
      pdev=$(cat "/.rig/hostsys/block/$lname/${lname}p$n/dev")
      send_uevent "add@$devpath/$dev$n" ACTION=add "DEVPATH=$devpath/$dev$n" SUBSYSTEM=block \
        "MAJOR=${pdev%%:*}" "MINOR=${pdev##*:}" "DEVNAME=$dev$n" DEVTYPE=partition "DISKSEQ=$diskseq" "PARTN=$n"
    done
  else
    for n in $(printf '%s\n' $nums | sort -rn); do
      local pdev
      pdev=$(read_file "$IN_STATE/disks/$d/pdev.$n")
      send_uevent "remove@$devpath/$dev$n" ACTION=remove "DEVPATH=$devpath/$dev$n" SUBSYSTEM=block \
        "MAJOR=${pdev%%:*}" "MINOR=${pdev##*:}" "DEVNAME=$dev$n" DEVTYPE=partition "DISKSEQ=$diskseq" "PARTN=$n"
    done
    send_uevent "remove@$devpath" ACTION=remove "DEVPATH=$devpath" SUBSYSTEM=block "MAJOR=${devno%%:*}" \
      "MINOR=${devno##*:}" "DEVNAME=$dev" DEVTYPE=disk "DISKSEQ=$diskseq"
    if [ "$USB_EVENTS" = yes ]; then
      send_uevent "remove@$usbpath/1-$port:1.0" ACTION=remove "DEVPATH=$usbpath/1-$port:1.0" SUBSYSTEM=usb \
        DEVTYPE=usb_interface "PRODUCT=$product" TYPE=0/0/0 INTERFACE=8/6/80
      send_uevent "remove@$usbpath" ACTION=remove "DEVPATH=$usbpath" SUBSYSTEM=usb MAJOR=189 "MINOR=$port" \
        "DEVNAME=bus/usb/001/$(printf %03d $((port + 1)))" DEVTYPE=usb_device "PRODUCT=$product" TYPE=0/0/0 \
        BUSNUM=001 "DEVNUM=$(printf %03d $((port + 1)))"
    fi
  fi
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

# ---------------------------------------------------------------- mtp

# /proc/driver/mptp/devices: one line per offered device, "<id> <n>".
regen_mptp_devices() {
  local n out=""
  for n in $(ls /proc/driver/mptp | grep -E '^[0-9]+$' | sort -n); do
    out="$out$(cat "/proc/driver/mptp/$n/id") $n"$'\n'
  done
  printf '%s' "$out" >/proc/driver/mptp/devices
}

in_mtp_add() {
  local n="" id="" name="Android" model="Android" src="" files="" uevent=no size=64m
  while [ $# -gt 0 ]; do
    case $1 in
      --index) n=${2:?}; shift ;;
      --id) id=${2:?}; shift ;;
      --name) name=${2:?}; shift ;;
      --model) model=${2:?}; shift ;;
      --mount) src=${2:?}; shift ;;
      --files) files=${2:?}; shift ;;
      --size) size=${2:?}; shift ;;
      --uevent) uevent=yes ;;
      *) die "mtp-add: unknown option '$1'" ;;
    esac
    shift
  done
  [ -n "$id" ] || die "mtp-add: --id is required (e.g. VEN_04E8&PID_6860&SER_0123)"
  [[ $id =~ ^[^[:space:]]+$ ]] || die "mtp-add: the id must not contain blanks"
  [ -n "$src" ] || src=$id
  if [ -z "$n" ]; then
    n=0
    while [ -e "/proc/driver/mptp/$n" ]; do n=$((n + 1)); done
  fi
  [[ $n =~ ^[0-9]+$ ]] || die "mtp-add: --index must be a number"
  [ ! -e "/proc/driver/mptp/$n" ] || die "mtp-add: device $n is offered already"
  local x
  for x in /proc/driver/mptp/[0-9]*; do
    [ -e "$x/id" ] && [ "$(cat "$x/id")" = "$id" ] && die "mtp-add: a device with id $id is offered already"
  done
  # The phone's storage: a tmpfs whose source name is the device id, so that
  # binds of it (the mounts made by mount.mptpfs) carry the id too.
  local st=/.rig/mtp/$n
  mkdir -p "$st/storage"
  /.rig/real-mount -t tmpfs -o "size=$size,mode=0755" "$src" "$st/storage"
  if [ -n "$files" ]; then
    cp -R -- "$files/." "$st/storage/" || die "mtp-add: copying the phone's files failed"
  fi
  mkdir -p "/proc/driver/mptp/$n"
  printf '%s\n' "$id" >"/proc/driver/mptp/$n/id"
  printf '%s\n' "$name" >"/proc/driver/mptp/$n/name"
  printf '%s\n' "$model" >"/proc/driver/mptp/$n/model"
  # "mount" reads 0 while the device is offered and not mounted; the
  # mptpfs helper turns it to 1 and the umount helper back to 0.
  printf '0\n' >"/proc/driver/mptp/$n/mount"
  printf '%s\n' "$src" >"/.rig/mtp/$n/source"
  grep -qxF -- "$src" "$IN_STATE/mtp.ids" 2>/dev/null || printf '%s\n' "$src" >>"$IN_STATE/mtp.ids"
  regen_mptp_devices
  log_event "$IN_STATE" "mtp-add $n id=$id"
  if [ "$uevent" = yes ]; then
    local p=$((50 + n))
    send_uevent "add@$DEVPATH_ROOT/1-$p" ACTION=add "DEVPATH=$DEVPATH_ROOT/1-$p" SUBSYSTEM=usb DEVTYPE=usb_device \
      "PRODUCT=$(mtp_product "$id")" TYPE=0/0/0 BUSNUM=001 "DEVNUM=$(printf %03d "$p")"
  fi
  echo "$n"
}

# "VEN_04E8&PID_6860&..." -> "4e8/6860/0" (the PRODUCT= of a usb uevent)
mtp_product() {
  local id=$1 v=0 p=0
  [[ $id =~ VEN_([0-9A-Fa-f]{1,4}) ]] && v=${BASH_REMATCH[1]}
  [[ $id =~ PID_([0-9A-Fa-f]{1,4}) ]] && p=${BASH_REMATCH[1]}
  printf '%x/%x/0' "$((16#$v))" "$((16#$p))"
}

in_mtp_remove() {
  local n="" uevent=no
  while [ $# -gt 0 ]; do
    case $1 in
      --uevent) uevent=yes ;;
      *) n=$1 ;;
    esac
    shift
  done
  [[ $n =~ ^[0-9]+$ ]] || die "mtp-remove: which device number?"
  [ -d "/proc/driver/mptp/$n" ] || die "mtp-remove: no device $n"
  local id
  id=$(cat "/proc/driver/mptp/$n/id")
  rm -rf "/proc/driver/mptp/$n"
  regen_mptp_devices
  # The storage goes; mounts the service made of it stay until it unmounts them.
  umount -l "/.rig/mtp/$n/storage" 2>/dev/null || true
  rm -rf "/.rig/mtp/$n"
  log_event "$IN_STATE" "mtp-remove $n id=$id"
  if [ "$uevent" = yes ]; then
    local p=$((50 + n))
    send_uevent "remove@$DEVPATH_ROOT/1-$p" ACTION=remove "DEVPATH=$DEVPATH_ROOT/1-$p" SUBSYSTEM=usb \
      DEVTYPE=usb_device "PRODUCT=$(mtp_product "$id")" TYPE=0/0/0 BUSNUM=001 "DEVNUM=$(printf %03d "$p")"
  fi
}

in_uevent() {
  local mode=${LUMRIG_UEVENT_MODE:-kernel}
  if [ "${1:-}" = --direct ]; then
    mode=direct
    shift
  fi
  [ $# -ge 1 ] || die "uevent: ACTION@DEVPATH [KEY=VALUE ...]"
  LUMRIG_UEVENT_MODE=$mode send_uevent "$@"
}

# Dispatches 'rig _in OP ...' (always run inside a television).
in_main() {
  [ "$(read_file /.rig/id)" != "" ] || die "_in: not inside a television"
  local op=${1:?}
  shift
  case $op in
    build) in_build "$@" ;;
    plug) in_plug "$@" ;;
    unplug) in_unplug "$@" ;;
    sync) in_sync "$@" ;;
    mtp-add) in_mtp_add "$@" ;;
    mtp-remove) in_mtp_remove "$@" ;;
    uevent) in_uevent "$@" ;;
    *) die "_in: unknown operation '$op'" ;;
  esac
}
