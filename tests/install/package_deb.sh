#!/usr/bin/env bash
# cpack -G DEB makes one package holding every file of an install under the
# package's prefix, a unit that starts the packaged daemon, the version of
# the project and the dependencies of the libraries and of the service's tools.
# shellcheck source=tests/install/lib.sh disable=SC2154  # paths.sh sets the places
. "$(dirname "$0")/lib.sh" "$1"

for tool in dpkg-deb dpkg-shlibdeps; do
  command -v "$tool" >/dev/null || skip "no $tool (a Debian system with dpkg-dev makes the package)"
done
out="$work_dir/deb"
rm -rf "$out"
mkdir -p "$out"
if ! (cd "$build_dir" && "$cpack" -G DEB -B "$out") >"$out/cpack.log" 2>&1; then
  cat "$out/cpack.log" >&2
  fail "cpack -G DEB"
fi
debs=("$out"/*.deb)
if [ ${#debs[@]} -ne 1 ] || [ ! -f "${debs[0]}" ]; then
  fail "cpack made ${#debs[@]} packages: ${debs[*]}"
fi
deb=${debs[0]}

dpkg-deb -c "$deb" | awk '{ print $6 }' | sed 's/^\.//' >"$out/contents.txt"
check_listed "$deb_prefix" "$out/contents.txt"

unit="$(full "$unitdir" "$deb_prefix")/lumstoraged.service"
dpkg-deb --fsys-tarfile "$deb" | tar -xO ".$unit" >"$out/unit"
exec_start=$(grep '^ExecStart=' "$out/unit" | cut -d' ' -f1)
[ "$exec_start" = "ExecStart=$(full "$sbindir" "$deb_prefix")/lumstoraged" ] ||
  fail "the packaged unit starts '$exec_start'"

[ "$(dpkg-deb -f "$deb" Package)" = lumstorage ] || fail "package name $(dpkg-deb -f "$deb" Package)"
[ "$(dpkg-deb -f "$deb" Version)" = "$version" ] || fail "version $(dpkg-deb -f "$deb" Version), not $version"
depends=$(dpkg-deb -f "$deb" Depends)
for want in libtagc0 libc6 ntfs-3g e2fsprogs dosfstools util-linux mount; do
  grep -qE "(^|, )$want( |,|$)" <<<"$depends" || fail "Depends lacks $want: $depends"
done
[ -n "$(dpkg-deb -f "$deb" Maintainer)" ] || fail "no Maintainer"
echo "package: ${deb##*/}, $(wc -l <"$out/contents.txt") entries, Depends: $depends"
