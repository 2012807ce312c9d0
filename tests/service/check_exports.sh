#!/bin/sh
# The library exports what the middleware and the framework use, and keeps
# the rest inside.
lib="$1"
syms=$(nm -D --defined-only -C "$lib" | awk '{ $1=""; $2=""; sub(/^  /, ""); print }')
fail=0
for want in 'StorageSystemInit' 'GetSignalIdNamePtr(SignalIds)' 'StorageModuleHub::self()' \
            'StorageModuleHub::invoke(android::Parcel const&, android::Parcel*)' \
            'traceUnitsStringArray' 'traceUnitsStringArraySizePtr' 'tvSystemTimeTrace'; do
  if ! printf '%s\n' "$syms" | grep -qxF "$want"; then
    echo "missing export: $want"; fail=1
  fi
done
for hidden in 'theStorageManagerService' 'call_system' 'parse_output_lines'; do
  if printf '%s\n' "$syms" | grep -q "^$hidden"; then
    echo "exported but internal: $hidden"; fail=1
  fi
done
[ $fail -eq 0 ] && echo "exports: 1 passed, 0 failed" || echo "exports: 0 passed, 1 failed"
exit $fail
