#!/usr/bin/env bash
# Installs the Debian packages the build needs, when any is missing. Needs root (or sudo).
# clang and libclang-rt-14-dev (its sanitizer and libFuzzer runtimes) serve the Clang build and
# the fuzz targets; systemd and systemd-container boot the container of the systemd test; dpkg-dev
# and file serve cpack's Debian package, lintian checks it.
set -euo pipefail
packages=(cmake make g++ libboost-dev libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev libacl1-dev
          clang libclang-rt-14-dev systemd systemd-container dpkg-dev file lintian)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
