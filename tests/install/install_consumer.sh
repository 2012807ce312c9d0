#!/usr/bin/env bash
# Builds tests/install/consumer against the installed tree, through
# pkg-config or through CMake's find_package ($3), and runs it in the service
# sandbox ($2 runs a command there): it starts the service, sends
# STORAGE_IS_ENCRYPTED through the hub and prints the reply, false.
# shellcheck source=tests/install/lib.sh disable=SC2154  # paths.sh sets the places
. "$(dirname "$0")/lib.sh" "$1"
sandbox_run=$2
how=$3

src="$source_dir/tests/install/consumer"
out="$work_dir/consumer-$how"
lib="$root$(full "$libdir" "$prefix")"
rm -rf "$out"
mkdir -p "$out"
# The platform libraries are the service's, not the consumer's: the linker
# and the loader find them as for any install outside their folders.
export LD_LIBRARY_PATH="$lib"

case $how in
  pkg-config)
    command -v pkg-config >/dev/null || skip "no pkg-config"
    # The .pc file names the install's prefix; the sysroot puts it below DESTDIR.
    export PKG_CONFIG_SYSROOT_DIR="$root" PKG_CONFIG_LIBDIR="$lib/pkgconfig"
    flags=$(pkg-config --cflags --libs lumstorageservice) || fail "pkg-config lumstorageservice"
    # shellcheck disable=SC2086  # the flags are words
    "$cxx" -std=c++17 -Wall -Wextra -Werror $sanitize_flags -o "$out/consumer" "$src/main.cpp" $flags \
      >"$out/build.log" 2>&1 || { cat "$out/build.log" >&2; fail "the consumer does not build with: $flags"; }
    program="$out/consumer"
    ;;
  cmake)
    if ! { "$cmake" -S "$src" -B "$out/build" -DCMAKE_PREFIX_PATH="$root$prefix" -DCMAKE_CXX_COMPILER="$cxx" \
             -DCMAKE_CXX_FLAGS="$sanitize_flags" && "$cmake" --build "$out/build"; } >"$out/build.log" 2>&1; then
      cat "$out/build.log" >&2
      fail "the consumer does not build with find_package(lumstorageservice)"
    fi
    program="$out/build/consumer"
    ;;
  *) fail "usage: install_consumer.sh PATHS SANDBOX_RUN pkg-config|cmake" ;;
esac

rc=0
"$sandbox_run" "$program" >"$out/stdout" 2>"$out/stderr" || rc=$?
if [ "$rc" -eq 77 ]; then
  cat "$out/stderr" >&2
  skip "the consumer ($how) built but cannot start the service outside a sandbox"
fi
answer=$(grep '^STORAGE_IS_ENCRYPTED:' "$out/stdout" || true)
if [ "$rc" -ne 0 ] || [ "$answer" != "STORAGE_IS_ENCRYPTED: result 0, reply false" ]; then
  tail -n 20 "$out/stdout" "$out/stderr" >&2
  fail "the consumer ($how) exited $rc with '$answer'"
fi
echo "consumer ($how): $answer"
