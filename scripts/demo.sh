#!/usr/bin/env bash
# The demo: builds the daemon and the test rig, then runs the real daemon in
# the host sandbox against the virtual array (two arrays, three LUNs). Both
# arrays ask for a collection; the log and what the arrays receive are shown
# as they happen, then everything is stopped and unmounted.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=${HIC_DEMO_BUILD:-$root/build/demo}

echo "== installing what is missing"
bash scripts/deps.sh
echo "== building (Release) in $build"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DHIC_BUILD_TESTS=OFF -DHIC_BUILD_RIG=ON >/dev/null
cmake --build "$build" -j "$(nproc)"

echo "== entering the host sandbox"
exec "$root/tools/sandbox/hic-sandbox" -- bash "$root/scripts/demo-inside.sh" "$build"
