# The Debian package, `cpack -G DEB` in the build folder: one package holding
# every component (a Linux box needs the platform stand-ins), under /usr.
set(LUM_PACKAGE_MAINTAINER "lumstorage maintainers <lumstorage@example.org>" CACHE STRING
  "Maintainer field of the Debian package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lumstorage)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "storage service of a smart television, hosted on Linux")
set(CPACK_PACKAGE_DESCRIPTION [[
lumstoraged hosts liblumstorageservice.so, the storage service of a smart
television's firmware: it notices USB disks and MTP/PTP devices, mounts them
under /mnt/pvr/shared, keeps the device table, picks the partition for
recordings, formats and benchmarks disks and serves a file browser. Clients
talk to it through a Unix socket; lumstoragectl is the command-line client.
The package also holds Linux stand-ins of the television's platform libraries
(liblmdroid, libnorvfw, liblumemclient), the headers, pkg-config and CMake
files for programs that use the service, and a systemd unit.]])
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${LUM_PACKAGE_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
# The libraries' own dependencies (libtagc0, libstdc++6, libc6) come from
# dpkg-shlibdeps; the tools the service runs do not show in its binaries.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "util-linux, mount, e2fsprogs, dosfstools, ntfs-3g, coreutils, grep")
# The disk benchmark runs iozone (Debian's non-free) and stops it with killall.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "iozone3, psmisc")

include(CPack)
