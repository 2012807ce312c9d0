# FAT: labels written byte for byte (mkfs.fat takes only labels it can
# convert), and the switch of the FAT adapter (helpers/mount.vfat).

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
