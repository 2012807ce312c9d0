# Disks and images: image files and partition tables, loop devices (attached
# on the host, detached at teardown), and the file systems, files and damage
# made on them inside the television.

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
      # Inode tables and journal written now: left to the kernel's lazy
      # init, they are zeroed in the background for minutes after the first
      # mount, and that writing falls on whatever the tests and benchmarks
      # time then.
      "mkfs.$fs" -F -q -E lazy_itable_init=0,lazy_journal_init=0 "${lab[@]}" "$node"
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
