# shellcheck shell=bash disable=SC2154,SC2034  # paths.sh sets the places; the tests use root
# What the install tests share: the places (paths.sh, given as $1), the list
# of files an install holds, and how a test fails or skips.
set -euo pipefail

# shellcheck source=/dev/null
. "$1"
root="$work_dir/root"

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

skip() {
  echo "SKIPPED LOUDLY: $*" >&2
  exit 77
}

# The full form of place $1 for an install under prefix $2.
full() {
  case $1 in
    /*) printf '%s\n' "$1" ;;
    *) printf '%s/%s\n' "$2" "$1" ;;
  esac
}

# The files an install under prefix $1 holds, one absolute path a line.
expected_files() {
  local p=$1 lib inc h l
  lib=$(full "$libdir" "$p")
  inc=$(full "$includedir" "$p")
  echo "$lib/liblumstorageservice.so"
  echo "$lib/liblumstorageservice.so.$soversion"
  echo "$lib/liblumstorageservice.so.$version"
  for l in lmdroid norvfw lumemclient; do
    echo "$lib/lib$l.so"
  done
  for h in "$source_dir"/include/*.h; do
    echo "$inc/${h##*/}"
  done
  echo "$(full "$platformincludedir" "$p")/binder/Parcel.h"
  echo "$lib/pkgconfig/lumstorageservice.pc"
  for l in Config ConfigVersion Targets; do
    echo "$lib/cmake/lumstorageservice/lumstorageservice$l.cmake"
  done
  echo "$(full "$sbindir" "$p")/lumstoraged"
  echo "$(full "$bindir" "$p")/lumstoragectl"
  echo "$(full "$datadir" "$p")/bash-completion/completions/lumstoragectl"
  echo "$(full "$unitdir" "$p")/lumstoraged.service"
}

# Fails unless every file of an install under prefix $1 is a line of the
# listing file $2 (absolute paths).
check_listed() {
  local missing f
  missing=$(expected_files "$1" | while read -r f; do grep -qxF "$f" "$2" || echo "  $f"; done)
  [ -z "$missing" ] || fail "missing from the install:"$'\n'"$missing"
}

# Fails unless file $1 has the line $2.
check_line() {
  grep -qxF "$2" "$1" || fail "$1 lacks the line '$2'"
}
