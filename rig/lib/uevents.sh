# Uevents: the two small C tools that send and receive them, the events of a
# plugged or unplugged disk, and injecting and listening from the host.

# Compiles the uevent tools into DIR (or copies them from $LUMRIG_TOOLDIR,
# where CMake puts them).
build_tools() {
  local dir=$1 t
  mkdir -p "$dir"
  for t in uevent_send uevent_listen; do
    if [ -n "${LUMRIG_TOOLDIR:-}" ] && [ -x "$LUMRIG_TOOLDIR/lumrig_$t" ]; then
      cp "$LUMRIG_TOOLDIR/lumrig_$t" "$dir/$t"
    else
      command -v cc >/dev/null || die "step 'tools': no C compiler (cc) to build $t"
      cc -O2 -Wall -Wextra -o "$dir/$t" "$RIG_HOME/tools/$t.c" 2>"$dir/$t.cc.log" ||
        die "step 'tools': compiling $t failed: $(cat "$dir/$t.cc.log")"
    fi
  done
}

cmd_uevent() {
  local id=${1:?uevent: which television?} S
  shift
  S=$(need_rig "$id")
  inside "$S" uevent "$@"
}

cmd_listen() {
  local id=${1:?listen: which television?} S
  shift
  S=$(need_rig "$id")
  enter_rig "$S" "$IN_STATE/tools/uevent_listen" "$@"
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

in_uevent() {
  local mode=${LUMRIG_UEVENT_MODE:-kernel}
  if [ "${1:-}" = --direct ]; then
    mode=direct
    shift
  fi
  [ $# -ge 1 ] || die "uevent: ACTION@DEVPATH [KEY=VALUE ...]"
  LUMRIG_UEVENT_MODE=$mode send_uevent "$@"
}
