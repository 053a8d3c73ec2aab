#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the test rig need.
# Does nothing when they are all present already.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  clang clang-format clang-tidy libclang-rt-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libfuse3-dev fuse3 nlohmann-json3-dev
  faketime util-linux mount tar gzip procps jq
  systemd man-db
  debhelper dpkg-dev lintian devscripts rpm groff shellcheck
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  echo "== installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
