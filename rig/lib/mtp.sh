# MTP/PTP devices: the /proc/driver/mptp stand-in and the phones' storage.

cmd_mtp_add() {
  local id=${1:?mtp-add: which television?} S files=""
  shift
  S=$(need_rig "$id")
  local -a args=()
  while [ $# -gt 0 ]; do
    case $1 in
      --files)
        # The phone's files are copied from the host into the television.
        local src=${2:?--files needs a folder} stage
        [ -d "$src" ] || die "mtp-add: --files '$src' is not a folder"
        stage=$(mktemp -d "$S/mtp/stage.XXXXXX")
        cp -R -- "$src/." "$stage/"
        files=$stage
        args+=(--files "$IN_STATE/mtp/$(basename "$stage")")
        shift
        ;;
      *) args+=("$1") ;;
    esac
    shift
  done
  local rc=0
  with_lock "$S" inside "$S" mtp-add "${args[@]}" || rc=$?
  [ -n "$files" ] && rm -rf "$files"
  return $rc
}

cmd_mtp_remove() {
  local id=${1:?mtp-remove: which television?} S
  shift
  S=$(need_rig "$id")
  with_lock "$S" inside "$S" mtp-remove "$@"
}

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
