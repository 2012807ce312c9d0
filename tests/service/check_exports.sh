#!/bin/sh
# The library exports what the middleware and the framework use, and nothing
# else: no handler, no shell helper, no direct primitive (LumOpen, systemCmd,
# ...) is reachable from outside the process but through the hub.
lib="$1"
syms=$(nm -D --defined-only -C "$lib" | awk '{ $1=""; $2=""; sub(/^  /, ""); print }' | LC_ALL=C sort -u)
allowed='GetSignalIdNamePtr(SignalIds)
StorageModuleHub::invoke(android::Parcel const&, android::Parcel*)
StorageModuleHub::self()
StorageModuleHub::~StorageModuleHub()
StorageSystemInit
traceUnitsStringArray
traceUnitsStringArraySizePtr
tvSystemTimeTrace
typeinfo for StorageModuleHub
typeinfo name for StorageModuleHub
vtable for StorageModuleHub'
fail=0
for want in 'StorageSystemInit' 'GetSignalIdNamePtr(SignalIds)' 'StorageModuleHub::self()' \
            'StorageModuleHub::invoke(android::Parcel const&, android::Parcel*)' \
            'traceUnitsStringArray' 'traceUnitsStringArraySizePtr' 'tvSystemTimeTrace'; do
  if ! printf '%s\n' "$syms" | grep -qxF "$want"; then
    echo "missing export: $want"; fail=1
  fi
done
extra=$(printf '%s\n' "$syms" | grep -vxF "$allowed")
if [ -n "$extra" ]; then
  printf 'exported but internal: %s\n' "$extra"; fail=1
fi
[ $fail -eq 0 ] && echo "exports: 1 passed, 0 failed" || echo "exports: 0 passed, 1 failed"
exit $fail
