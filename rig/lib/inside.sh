# The inside of a television: 'rig _in ...', started through nsenter in its
# mount, IPC and network namespaces (see namespaces.sh), runs the operations
# of the other files there.

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
