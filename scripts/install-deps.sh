#!/usr/bin/env bash
# Installs the Debian 12 packages that building and testing need, when they
# are missing. Uses sudo only when not root.
set -euo pipefail

packages=(g++ cmake ninja-build pkg-config libglib2.0-dev libidn2-dev libpcre2-dev libsimdjson-dev
          libgtest-dev libgmock-dev libbenchmark-dev util-linux dbus-daemon
          clang libc++-14-dev libc++abi-14-dev)
case "${1:-}" in
  --fuzz) packages+=(clang libclang-rt-14-dev) ;;
  --mutation) packages+=(python3) ;;
  # The Debian package (scripts/package.sh) and the click latency benchmark.
  --package) packages+=(dpkg-dev file lintian man-db desktop-file-utils xdg-utils libglib2.0-bin) ;;
  # The same, with what the package check runs: the real-browser test.
  --desktop) packages+=(dpkg-dev file lintian man-db desktop-file-utils xdg-utils libglib2.0-bin
                        chromium firefox-esr xvfb xauth) ;;
esac

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

sudo=""
[[ $(id -u) -ne 0 ]] && sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
