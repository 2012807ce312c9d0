#!/usr/bin/env bash
# Installs the build into a fresh DESTDIR below the build folder, with the
# prefix it was configured with; the other install tests look at that tree.
# shellcheck source=tests/install/lib.sh disable=SC2154  # paths.sh sets the places
. "$(dirname "$0")/lib.sh" "$1"

rm -rf "$root"
mkdir -p "$work_dir"
if ! DESTDIR="$root" "$cmake" --install "$build_dir" >"$work_dir/install.log" 2>&1; then
  cat "$work_dir/install.log" >&2
  fail "cmake --install into $root"
fi
echo "installed into $root$prefix ($(grep -c 'Installing:' "$work_dir/install.log") files)"
