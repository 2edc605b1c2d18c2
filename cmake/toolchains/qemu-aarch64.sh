#!/bin/sh
# Runs an ARM64 program of the cross build under qemu-user.
#
# The C library, loader and C++ runtime come from the cross toolchain's root
# (/usr/aarch64-linux-gnu). Its lib directory goes first in LD_LIBRARY_PATH:
# when ARM64 packages are also installed through multiarch (libpng-dev:arm64
# and so on), the host's loader cache lists that other build of the C
# library, and a loader and C library from two builds must not be mixed.
root=${MORVEN_AARCH64_ROOT:-/usr/aarch64-linux-gnu}
qemu=$(command -v qemu-aarch64 || command -v qemu-aarch64-static) || {
  echo "qemu-aarch64.sh: qemu-aarch64 not found (Debian: apt-get install qemu-user)" >&2
  exit 127
}
LD_LIBRARY_PATH="$root/lib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" exec "$qemu" -L "$root" "$@"
