#!/usr/bin/env bash
# Builds the NV21 driver for AArch64 (real Advanced SIMD), runs it under user-mode
# emulation and compares every output byte with the host build of the same driver (which
# runs the best copy of the kernels for the host processor).
# Usage: cross_check.sh <host driver> <artifact_detection dir> <work dir>
# Exit 77 (a skip for ctest) when the cross compiler or the emulator is missing.
set -euo pipefail

host_driver=$1
root=$2
work=$3

for tool in aarch64-linux-gnu-g++ qemu-aarch64; do
  if ! command -v "$tool" >/dev/null 2>&1; then
    echo "skipped: $tool not found (scripts/install-deps installs it)"
    exit 77
  fi
done

rm -rf "$work"
mkdir -p "$work"
arm_driver=$work/nv21_cross_driver.aarch64
aarch64-linux-gnu-g++ -std=c++17 -O2 -static -ffp-contract=off -Wall -Wextra -Werror \
  -DAD_NEON_NATIVE=1 -I"$root/src" -I"$root/tests" \
  "$root/tests/arm64/nv21_cross_driver.cpp" "$root/src/utils/image_utils_neon.cpp" \
  "$root/src/utils/kernel_dispatch.cpp" "$root/src/utils/area_plan.cpp" \
  "$root/src/utils/nv21_resize.cpp" "$root/src/utils/neon_kernels.cpp" \
  -o "$arm_driver"

# Both outputs are streamed through pipes into cmp: no large files.
mkfifo "$work/host.pipe" "$work/arm.pipe"
"$host_driver" >"$work/host.pipe" 2>"$work/host.index" &
host_pid=$!
qemu-aarch64 "$arm_driver" >"$work/arm.pipe" 2>"$work/arm.index" &
arm_pid=$!
same=yes
cmp "$work/host.pipe" "$work/arm.pipe" >"$work/cmp.txt" 2>&1 || same=no
host_rc=0 arm_rc=0
wait "$host_pid" || host_rc=$?
wait "$arm_pid" || arm_rc=$?

if [ "$same" = yes ] && [ "$host_rc" = 0 ] && [ "$arm_rc" = 0 ] &&
   diff -q "$work/host.index" "$work/arm.index" >/dev/null; then
  echo "host and AArch64 bytes identical over $(($(wc -l <"$work/host.index") - 1)) cases"
  exit 0
fi

echo "host exit $host_rc, AArch64 exit $arm_rc"
cat "$work/cmp.txt"
# "... differ: byte N, line M": name the case that holds byte N (1-based).
byte=$(sed -n 's/.*differ: \(char\|byte\) \([0-9]*\).*/\2/p' "$work/cmp.txt")
if [ -n "$byte" ]; then
  awk -v at="$((byte - 1))" '$1 ~ /^[0-9]+$/ && at >= $1 && at < $1 + $2 {
    print "first difference in case: " substr($0, index($0, $3)) " at byte " at - $1 }' \
    "$work/host.index"
fi
diff "$work/host.index" "$work/arm.index" | head -n 5 || true
exit 1
