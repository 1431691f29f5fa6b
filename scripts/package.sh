#!/usr/bin/env bash
# Builds the Debian package build/package/corvane-dispatcher_<version>_amd64.deb
# with Debian's hardening flags.
#
# With --check (what CI runs, as root on a throw-away machine) it then proves
# the package: lintian reports no error, apt-get installs it, the installed
# desktop entry validates, the manual pages render, real Chromium and Firefox
# get their links through the installed dispatcher (the real-browsers test of
# build/ci), and apt-get removes it again without a trace.
set -euo pipefail
cd "$(dirname "$0")/.."
check=false
[[ "${1:-}" == "--check" ]] && check=true

scripts/install-deps.sh --desktop
eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
cmake --preset package -DCMAKE_C_FLAGS="$CPPFLAGS $CFLAGS" -DCMAKE_CXX_FLAGS="$CPPFLAGS $CXXFLAGS" \
  -DCMAKE_EXE_LINKER_FLAGS="$LDFLAGS" >/dev/null
cmake --build --preset package -j "$(nproc)"
rm -f build/package/*.deb
(cd build/package && cpack -G DEB >/dev/null)
deb=$(ls build/package/corvane-dispatcher_*_amd64.deb)
echo "Built $deb"
$check || exit 0
