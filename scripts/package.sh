#!/usr/bin/env bash
# Builds the Debian package build/package/corvane-dispatcher_<version>_amd64.deb
# with Debian's hardening flags.
#
# With --check (what CI runs, as root on a throw-away machine) it then proves
# the package: lintian reports no error, apt-get installs it, the installed
# desktop entry validates, the manual pages render, real Chromium and Firefox
# get their links through the installed dispatcher (the real-browsers test of
# build/ci), and apt-get removes it again without a trace.
#
# With --build-only it builds the programs as the package has them
# (build/package/corvane-dispatcher, ...) and makes no package.
set -euo pipefail
cd "$(dirname "$0")/.."
check=false
build_only=false
case "${1:-}" in
  --check) check=true ;;
  --build-only) build_only=true ;;
esac

if $check; then
  scripts/install-deps.sh --desktop
else
  scripts/install-deps.sh --package
fi
eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
cmake --preset package -DCMAKE_C_FLAGS="$CPPFLAGS $CFLAGS" -DCMAKE_CXX_FLAGS="$CPPFLAGS $CXXFLAGS" \
  -DCMAKE_EXE_LINKER_FLAGS="$LDFLAGS" >/dev/null
cmake --build --preset package -j "$(nproc)"
$build_only && exit 0
rm -f build/package/*.deb
(cd build/package && cpack -G DEB >/dev/null)
deb=$(ls build/package/corvane-dispatcher_*_amd64.deb)
echo "Built $deb"
$check || exit 0

fail() { echo "Package check failed: $*" >&2; exit 1; }
sudo=""
[[ $(id -u) -ne 0 ]] && sudo="sudo"
dpkg-query -W -f='${Status}' corvane-dispatcher 2>/dev/null | grep -q "install ok installed" &&
  fail "corvane-dispatcher is installed on this machine; remove it first (the check installs and removes it)"
# One check at a time on a machine: each installs and removes the same package.
exec 9>"${TMPDIR:-/tmp}/corvane-dispatcher-package-check.lock"
flock -w 900 9

lintian --fail-on error,warning "$deb" || fail "lintian"
# Nothing runs at installation (no maintainer scripts: no one's default browser changes), and the package holds
# exactly these files.
[[ "$(dpkg-deb --ctrl-tarfile "$deb" | tar -t | sort | xargs)" == "./control ./md5sums" ]] ||
  fail "the package has maintainer scripts"
diff <(dpkg-deb --fsys-tarfile "$deb" | tar -t | grep -v '/$' | sort) - <<'FILES' || fail "unexpected package contents"
./usr/bin/corvane-dispatcher
./usr/bin/corvane-dispatcher-policy
./usr/share/applications/com.halvard.corvane.dispatcher.desktop
./usr/share/doc/corvane-dispatcher/LICENSE
./usr/share/doc/corvane-dispatcher/changelog.gz
./usr/share/doc/corvane-dispatcher/copyright
./usr/share/doc/corvane-dispatcher/examples/Local State
./usr/share/icons/hicolor/scalable/apps/com.halvard.corvane.dispatcher.svg
./usr/share/man/man1/corvane-dispatcher-policy.1.gz
./usr/share/man/man1/corvane-dispatcher.1.gz
FILES

apt() { DEBIAN_FRONTEND=noninteractive $sudo apt-get -o DPkg::Lock::Timeout=600 -y -qq "$@" >/dev/null; }
trap 'apt remove corvane-dispatcher || true' EXIT
apt install "$PWD/$deb"
desktop-file-validate /usr/share/applications/com.halvard.corvane.dispatcher.desktop || fail "desktop-file-validate"
for page in corvane-dispatcher corvane-dispatcher-policy; do
  installed_page=/usr/share/man/man1/$page.1.gz
  if [[ ! -e "$installed_page" ]] && grep -qrs 'path-exclude=/usr/share/man' /etc/dpkg/dpkg.cfg.d; then
    # This system keeps dpkg from installing any manual page: read the packaged one.
    dpkg-deb --fsys-tarfile "$deb" | tar -xO ".$installed_page" >"build/package/$page.1.gz"
    man -l -P cat "build/package/$page.1.gz" 2>&1 | grep -q "^NAME" || fail "$page.1 does not render"
  else
    man -P cat "$page" 2>&1 | grep -q "^NAME" || fail "man $page does not render"
  fi
done
corvane-dispatcher-policy check --local-state "/usr/share/doc/corvane-dispatcher/examples/Local State" >/dev/null ||
  fail "the installed policy tool does not read the example Local State"

cmake --preset ci >/dev/null
cmake --build --preset ci -j "$(nproc)" --target corvane_real_browsers_test
CORVANE_INSTALLED_PREFIX=/usr ctest --preset ci -L real-browsers

apt remove corvane-dispatcher
trap - EXIT
dpkg-query -W -f='${Status}' corvane-dispatcher 2>/dev/null | grep -q "ok installed" && fail "still installed after removal"
for path in /usr/bin/corvane-dispatcher /usr/bin/corvane-dispatcher-policy /usr/share/doc/corvane-dispatcher \
            /usr/share/applications/com.halvard.corvane.dispatcher.desktop /usr/share/man/man1/corvane-dispatcher.1.gz; do
  [[ ! -e "$path" ]] || fail "$path is left after removal"
done
echo "Package check passed: $deb"
