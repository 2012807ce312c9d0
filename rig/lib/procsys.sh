# Inside a television: the USB-shaped sysfs tree of each plugged disk, and
# /proc/partitions and /proc/diskstats listing them.

USB_HOST=/sys/devices/platform/ehci-platform.0
USB_ROOT=$USB_HOST/usb1
DEVPATH_ROOT=/devices/platform/ehci-platform.0/usb1

# The root hub of the USB host controller the disks hang on.
sys_root_hub() {
  local R=$1 hub=$1$USB_ROOT
  mkdir -p "$hub"
  wr_all "$hub" idVendor=1d6b idProduct=0002 "manufacturer=Linux ehci_hcd" "product=EHCI Host Controller" \
    serial=ehci-platform.0 busnum=1 devnum=1 speed=480 bDeviceClass=09
  wr "$hub/uevent" "$(printf 'MAJOR=189\nMINOR=0\nDEVNAME=bus/usb/001/001\nDEVTYPE=usb_device\nPRODUCT=1d6b/2/606\nTYPE=9/0/1\nBUSNUM=001\nDEVNUM=001')"
}

# wr FILE VALUE: one sysfs-like attribute (value and a newline).
wr() {
  [ -d "${1%/*}" ] || mkdir -p "${1%/*}"
  printf '%s\n' "$2" >"$1"
}

# wr_all DIR NAME=VALUE...: several attributes of one sysfs-like folder.
wr_all() {
  local dir=$1 a
  shift
  for a in "$@"; do wr "$dir/${a%%=*}" "${a#*=}"; done
}

# copy_attrs FROM TO NAME...: attributes as the loop device's sysfs shows them.
copy_attrs() {
  local from=$1 to=$2 a
  shift 2
  for a in "$@"; do wr "$to/$a" "$(cat "$from/$a")"; done
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

  wr_all "$usb" "idVendor=$vid" "idProduct=$pid" "manufacturer=${DK[$d.manufacturer]:-${DK[$d.vendor]:-SanDisk}}" \
    "product=${DK[$d.product]:-${DK[$d.model]:-Cruzer Blade}}" "serial=$serial" bcdDevice=0100 busnum=1 \
    "devnum=$devnum" "devpath=$port" speed=480 "version= 2.00" bDeviceClass=00 "bNumInterfaces= 1" maxchild=0 \
    removable=removable
  wr "$usb/uevent" "$(printf 'MAJOR=189\nMINOR=%d\nDEVNAME=bus/usb/001/%03d\nDEVTYPE=usb_device\nDRIVER=usb\nPRODUCT=%x/%x/100\nTYPE=0/0/0\nBUSNUM=001\nDEVNUM=%03d' \
    "$((devnum - 1))" "$devnum" "$((16#$vid))" "$((16#$pid))" "$devnum")"
  wr_all "$intf" bInterfaceClass=08 bInterfaceSubClass=06 bInterfaceProtocol=50 bInterfaceNumber=00 bNumEndpoints=02
  wr "$intf/uevent" "$(printf 'DEVTYPE=usb_interface\nDRIVER=usb-storage\nPRODUCT=%x/%x/100\nTYPE=0/0/0\nINTERFACE=8/6/80' "$((16#$vid))" "$((16#$pid))")"
  wr "$intf/host$host/uevent" "DEVTYPE=scsi_host"
  wr "$intf/host$host/target$host:0:0/uevent" "DEVTYPE=scsi_target"
  wr "$scsi/vendor" "$(pad "${DK[$d.vendor]:-SanDisk}" 8)"
  wr "$scsi/model" "$(pad "${DK[$d.model]:-Cruzer Blade}" 16)"
  wr "$scsi/rev" "$(pad "${DK[$d.rev]:-1.00}" 4)"
  wr_all "$scsi" type=0 scsi_level=7 state=running
  wr "$scsi/uevent" "$(printf 'DEVTYPE=scsi_device\nDRIVER=sd\nMODALIAS=scsi:t-0x00')"

  copy_attrs "$hs" "$blk" dev size stat
  wr_all "$blk" removable=1 ro=0 range=16 ext_range=256 capability=1 queue/logical_block_size=512 \
    queue/physical_block_size=512 queue/hw_sector_size=512 queue/rotational=1
  local devno
  devno=$(cat "$hs/dev")
  wr "$blk/uevent" "$(printf 'MAJOR=%s\nMINOR=%s\nDEVNAME=%s\nDEVTYPE=disk' "${devno%%:*}" "${devno##*:}" "$dev")"
  mkdir -p "$blk/holders" "$blk/slaves"
  ln -sfn "../../../$host:0:0:0" "$blk/device"
  local n
  for n in $nums; do
    local pb=$blk/$dev$n ph=$hs/${lname}p$n pdev
    pdev=$(cat "$ph/dev")
    copy_attrs "$ph" "$pb" dev start size stat
    wr_all "$pb" "partition=$n" ro=0 alignment_offset=0 discard_alignment=0
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
