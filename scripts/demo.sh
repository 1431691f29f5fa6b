#!/usr/bin/env bash
# Builds the dispatcher and routes sample URLs in a throw-away home with the
# bundled example Local State and two stand-in browsers that print what they
# receive; then prints the debug log.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target corvane-dispatcher
dispatcher="$repo/build/default/corvane-dispatcher"

home=$(mktemp -d "${TMPDIR:-/tmp}/corvane-demo-XXXXXX")
trap 'rm -rf "$home"' EXIT
config="$home/.config"
mkdir -p "$config/Halvard/Corvane/logs" "$home/.local/share/applications" "$home/browsers" "$home/empty"

# The work browser is found by its desktop entry; the non-work browser by the
# path that Local State names.
cp demo/stand-in-browser "$home/browsers/work-browser"
cp demo/stand-in-browser "$home/browsers/personal-browser"
cat > "$home/.local/share/applications/com.velora.velorabrowser.desktop" <<ENTRY
[Desktop Entry]
Type=Application
Name=Work Browser (stand-in)
Exec="$home/browsers/work-browser" %u
ENTRY
sed "s|file:///opt/personal-browser/personal-browser|file://$home/browsers/personal-browser|" \
  "demo/Local State" > "$config/Halvard/Corvane/Local State"

run() {
  env -i HOME="$home" XDG_CONFIG_HOME="$config" XDG_DATA_HOME="$home/.local/share" \
    XDG_DATA_DIRS="$home/empty" PATH=/usr/bin:/bin LANG=C.UTF-8 \
    "$dispatcher" "$@" 2>/dev/null
}

echo "== 1. A work URL and a non-work URL"
run "https://intra.corp.test/app/" "https://news.example.org/today?id=7"
echo
echo "== 2. The non-work browser is uninstalled: non-work URLs fall back to the work browser"
rm "$home/browsers/personal-browser"
run "https://news.example.org/today?id=7"
echo
echo "== The debug log ($config/Halvard/Corvane/logs/CorvaneDispatcher_debug.log)"
cat "$config/Halvard/Corvane/logs/CorvaneDispatcher_debug.log"
