#!/usr/bin/env bash
# The installed tree holds every file lib.sh lists; the files made at install
# time name the install's own places; the programs keep no path into the
# build folder and run from the tree with its libraries.
# shellcheck source=tests/install/lib.sh disable=SC2154  # paths.sh sets the places
. "$(dirname "$0")/lib.sh" "$1"

listing="$work_dir/tree.txt"
(cd "$root" && find . \( -type f -o -type l \) | sed 's/^\.//' | sort) >"$listing"
check_listed "$prefix" "$listing"

lib=$(full "$libdir" "$prefix")
sbin=$(full "$sbindir" "$prefix")
bin=$(full "$bindir" "$prefix")
check_line "$root$lib/pkgconfig/lumstorageservice.pc" "prefix=$prefix"
check_line "$root$lib/pkgconfig/lumstorageservice.pc" "Version: $version"

unit="$root$(full "$unitdir" "$prefix")/lumstoraged.service"
exec_start=$(grep '^ExecStart=' "$unit" | cut -d' ' -f1)
[ "$exec_start" = "ExecStart=$sbin/lumstoraged" ] || fail "$unit starts '$exec_start', not $sbin/lumstoraged"
grep -q -- '--socket /run/' "$unit" || fail "$unit: the socket is not under /run"
check_line "$unit" "Environment=LC_ALL=C"
grep -q '^Environment=LMDROID_PROPERTY_DIR=/var/lib/lumstorage/' "$unit" || fail "$unit: properties not under /var/lib/lumstorage"
check_line "$unit" "Restart=on-failure"

for f in "$sbin/lumstoraged" "$bin/lumstoragectl" "$lib/liblumstorageservice.so.$version" "$lib"/lib{lmdroid,norvfw,lumemclient}.so; do
  dynamic=$(readelf -d "$root$f") || fail "readelf -d $f"
  runpath=$(grep -E 'R(UN)?PATH' <<<"$dynamic" || true)
  [[ $runpath != *"$build_dir"* ]] || fail "$f still looks for libraries in the build folder: $runpath"
done

export LD_LIBRARY_PATH="$root$lib"
loaded=$(ldd "$root$sbin/lumstoraged")
for l in liblumstorageservice.so.$soversion liblmdroid.so libnorvfw.so liblumemclient.so; do
  grep -qF "$l => $root$lib/$l" <<<"$loaded" || fail "lumstoraged does not load $l from the tree"
done
"$root$sbin/lumstoraged" --help >/dev/null || fail "lumstoraged --help"
rows=$("$root$bin/lumstoragectl" list | wc -l) || fail "lumstoragectl list"
[ "$rows" -gt 0 ] || fail "lumstoragectl list printed nothing"
echo "install tree: $(wc -l <"$listing") files, every one expected present"

# A television's install, without the platform stand-ins and the host programs.
tv="$work_dir/tv-root"
rm -rf "$tv"
for component in runtime devel; do
  DESTDIR="$tv" "$cmake" --install "$build_dir" --component "$component" >/dev/null || fail "install of $component"
done
(cd "$tv" && find . \( -type f -o -type l \) | sed 's/^\.//' | sort) >"$work_dir/tv-tree.txt"
for f in "$lib/liblumstorageservice.so.$version" "$lib/liblumstorageservice.so" \
         "$(full "$includedir" "$prefix")/StorageModuleHub.h" "$lib/pkgconfig/lumstorageservice.pc"; do
  grep -qxF "$f" "$work_dir/tv-tree.txt" || fail "the runtime and devel components lack $f"
done
if grep -E '/lib(lmdroid|norvfw|lumemclient)\.so$|/binder/Parcel\.h$|/lumstoraged(\.service)?$' "$work_dir/tv-tree.txt"; then
  fail "the runtime and devel components hold the files above, which are the platform's or the host's"
fi
echo "television install (runtime, devel): $(wc -l <"$work_dir/tv-tree.txt") files, no stand-in"
