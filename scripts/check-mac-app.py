#!/usr/bin/env python3
"""Checks a built "Corvane Dispatcher.app" (and its zip) for what a Mac
would refuse or get wrong, as far as Linux can tell:

- Info.plist: identity, version keys, LSUIElement, the http/https URL
  schemes and the HTML document types without which macOS never offers the
  app as the default web browser, the icon;
- every slice of every executable in Contents/MacOS: a minimum system
  (LC_BUILD_VERSION) within what Info.plist promises for its architecture, no
  strong bind of a symbol that is newer than that promise (classes and
  functions by the SDK's availability annotations, and the runtime entry
  points that compilers call without a header), only system libraries and no
  rpaths, no undefined symbols;
- the code signature of every signed slice (all arm64 slices must be
  signed): each page hash recomputed, and each sealed special slot
  (Info.plist, requirements, resources, entitlements) matching what it seals;
- the zip: exactly the bundle's files, bytes and modes, under the app's own
  folder, and the SHA-256 file beside it.

What only a Mac can judge -- Gatekeeper, notarisation, a signature's CMS
blob, the bundle's resource seal when codesign has not made one yet -- is
left to codesign and spctl there.

Usage: check-mac-app.py --sdk SDK --version VERSION APP [ZIP]
Prints one line per check and exits 1 if any fails.
"""
import argparse
import hashlib
import os
import plistlib
import re
import stat
import struct
import sys
import zipfile
import zlib

BUNDLE_ID = "com.halvard.corvane.dispatcher"
APP_NAME = "Corvane Dispatcher.app"
EXECUTABLES = ["corvane-dispatcher", "corvane-dispatcher-policy"]
ARCHS = {0x01000007: "x86_64", 0x0100000C: "arm64"}

failures = 0


def report(ok, text):
    global failures
    if not ok:
        failures += 1
    print(("ok      " if ok else "WRONG   ") + text)
    return ok


def version_tuple(parts):
    """(major, minor, patch) from "10.14.4" or a sequence of numbers."""
    parts = [int(part) for part in (parts.split(".") if isinstance(parts, str) else parts)]
    return tuple(parts + [0] * (3 - len(parts)))


def version_text(version):
    while len(version) > 2 and version[-1] == 0:
        version = version[:-1]
    return ".".join(str(part) for part in version)


# ---------------------------------------------------------------- Mach-O

def uleb(data, pos):
    result = shift = 0
    while True:
        byte = data[pos]
        pos += 1
        result |= (byte & 0x7F) << shift
        shift += 7
        if byte < 0x80:
            return result, pos


def bind_imports(data, start, size):
    """(symbol, weak import) for each bind in a dyld
    opcode stream (regular or lazy); the weak imports are what the linker
    made of references that the compiler marked weak."""
    imports = []
    pos, end = start, start + size
    symbol, flags = None, 0
    while pos < end:
        byte = data[pos]
        pos += 1
        opcode, immediate = byte & 0xF0, byte & 0x0F
        if opcode == 0x20:  # SET_DYLIB_ORDINAL_ULEB
            _, pos = uleb(data, pos)
        elif opcode == 0x40:  # SET_SYMBOL_TRAILING_FLAGS_IMM
            name_end = data.index(b"\0", pos)
            symbol, flags = data[pos:name_end].decode("utf-8", "replace"), immediate
            pos = name_end + 1
        elif opcode in (0x60, 0x70, 0x80):  # ADDEND_SLEB, SEGMENT_AND_OFFSET_ULEB, ADD_ADDR_ULEB
            _, pos = uleb(data, pos)
        elif opcode in (0x90, 0xA0, 0xB0, 0xC0):  # DO_BIND and its variants
            if opcode == 0xA0:
                _, pos = uleb(data, pos)
            elif opcode == 0xC0:
                _, pos = uleb(data, pos)
                _, pos = uleb(data, pos)
            imports.append((symbol, bool(flags & 1)))
        elif opcode == 0xD0:  # THREADED
            if immediate == 0:
                _, pos = uleb(data, pos)
        # The rest (DONE, also the lazy entries' separator; the ordinal and
        # type immediates) carry no operand.
    return imports


class Slice:
    def __init__(self, data):
        self.data = data
        magic, cputype, _, self.filetype, ncmds, _, self.flags, _ = struct.unpack_from("<8I", data, 0)
        if magic != 0xFEEDFACF:
            raise ValueError("not a 64-bit Mach-O file")
        self.arch = ARCHS.get(cputype, hex(cputype))
        self.minos = None
        self.dylibs, self.rpaths, self.imports = [], [], []
        self.signature = None  # (offset, size)
        # Chained fixups (macOS 12 and later targets) are not read: such a
        # slice fails the bind check rather than pass it unseen.
        self.binds_read = False
        pos = 32
        for _ in range(ncmds):
            cmd, cmdsize = struct.unpack_from("<2I", data, pos)
            if cmd in (0xC, 0x80000018, 0x8000001F, 0x20, 0x80000023):  # the LC_*_DYLIB that load a library
                name_offset = struct.unpack_from("<I", data, pos + 8)[0]
                self.dylibs.append(cstring(data, pos + name_offset, pos + cmdsize))
            elif cmd == 0x8000001C:  # LC_RPATH
                self.rpaths.append(cstring(data, pos + struct.unpack_from("<I", data, pos + 8)[0], pos + cmdsize))
            elif cmd == 0x32:  # LC_BUILD_VERSION
                platform, minos = struct.unpack_from("<2I", data, pos + 8)
                if platform == 1:  # macOS
                    self.minos = (minos >> 16, minos >> 8 & 0xFF, minos & 0xFF)
            elif cmd == 0x24:  # LC_VERSION_MIN_MACOSX
                minos = struct.unpack_from("<I", data, pos + 8)[0]
                self.minos = (minos >> 16, minos >> 8 & 0xFF, minos & 0xFF)
            elif cmd in (0x22, 0x80000022):  # LC_DYLD_INFO(_ONLY)
                (_, _, bind_off, bind_size, _, _, lazy_off, lazy_size, _, _) = \
                    struct.unpack_from("<10I", data, pos + 8)
                self.imports += bind_imports(data, bind_off, bind_size)
                self.imports += bind_imports(data, lazy_off, lazy_size)
                self.binds_read = True
            elif cmd == 0x1D:  # LC_CODE_SIGNATURE
                self.signature = struct.unpack_from("<2I", data, pos + 8)
            pos += cmdsize


def cstring(data, start, limit):
    end = data.find(b"\0", start, limit)
    return data[start:end if end >= 0 else limit].decode("utf-8", "replace")


def slices(data):
    """Each slice of a universal (or thin) Mach-O file."""
    magic = struct.unpack_from(">I", data, 0)[0]
    if magic not in (0xCAFEBABE, 0xCAFEBABF):
        return [Slice(data)]
    count = struct.unpack_from(">I", data, 4)[0]
    result = []
    for i in range(count):
        if magic == 0xCAFEBABE:
            _, _, offset, size, _ = struct.unpack_from(">5I", data, 8 + 20 * i)
        else:
            _, _, offset, size, _, _ = struct.unpack_from(">2I2QII", data, 8 + 32 * i)
        result.append(Slice(data[offset:offset + size]))
    return result


# ---------------------------------------------------------------- code signature

HASHES = {1: (hashlib.sha1, 20), 2: (hashlib.sha256, 32), 3: (hashlib.sha256, 20), 4: (hashlib.sha384, 48)}
# Special slot -> what it seals: a file of the bundle or a blob of the signature.
SEALED_FILES = {1: "Contents/Info.plist", 3: "Contents/_CodeSignature/CodeResources"}
SEALED_BLOBS = {2: 2, 5: 5, 7: 7}  # requirements, entitlements, DER entitlements


def check_signature(slice_, app):
    """The reasons the slice's signature would not hold, or [] if it holds."""
    data = slice_.data
    offset, size = slice_.signature
    if offset + size > len(data):
        return ["signature lies beyond the end of the slice"]
    blob = data[offset:offset + size]
    magic, _, count = struct.unpack_from(">3I", blob, 0)
    if magic != 0xFADE0CC0:
        return ["no embedded signature"]
    blobs = {}
    for i in range(count):
        kind, blob_offset = struct.unpack_from(">2I", blob, 12 + 8 * i)
        length = struct.unpack_from(">I", blob, blob_offset + 4)[0]
        blobs[kind] = blob[blob_offset:blob_offset + length]
    directories = [b for kind, b in blobs.items() if kind == 0 or 0x1000 <= kind < 0x1005]
    if not directories:
        return ["no code directory"]
    problems = []
    for directory in directories:
        (magic, _, _, _, hash_offset, _, special_slots, code_slots, code_limit, hash_size,
         hash_type, _, page_shift) = struct.unpack_from(">9I4B", directory, 0)
        if magic != 0xFADE0C02 or hash_type not in HASHES or HASHES[hash_type][1] != hash_size:
            problems.append(f"code directory of an unknown kind (hash type {hash_type})")
            continue
        digest = lambda b: HASHES[hash_type][0](b).digest()[:hash_size]
        if code_limit != offset:
            problems.append(f"code directory covers {code_limit} bytes, not the {offset} before the signature")
        page = 1 << page_shift if page_shift else code_limit
        if code_slots != -(-code_limit // page):
            problems.append(f"{code_slots} page hashes for {code_limit} bytes in pages of {page}")
        bad = [i for i in range(code_slots)
               if directory[hash_offset + i * hash_size:hash_offset + (i + 1) * hash_size]
               != digest(data[i * page:min((i + 1) * page, code_limit)])]
        if bad:
            problems.append(f"{len(bad)} of {code_slots} page hashes differ (first at offset {bad[0] * page:#x})")
        for slot in range(1, special_slots + 1):
            sealed = directory[hash_offset - slot * hash_size:hash_offset - (slot - 1) * hash_size]
            if not any(sealed):
                continue
            if slot in SEALED_FILES:
                path = os.path.join(app, SEALED_FILES[slot])
                actual = digest(open(path, "rb").read()) if os.path.isfile(path) else None
                what = SEALED_FILES[slot]
            elif slot in SEALED_BLOBS:
                actual = digest(blobs[SEALED_BLOBS[slot]]) if SEALED_BLOBS[slot] in blobs else None
                what = f"signature blob {SEALED_BLOBS[slot]}"
            else:
                continue
            if actual != sealed:
                problems.append(f"special slot {slot} does not match {what}")
    return problems


# ---------------------------------------------------------------- availability

# Runtime entry points that compilers emit calls to and no header of the SDK
# declares, with the macOS release that first has them: the Objective-C
# runtime's (as its own sources annotate them) and clang's stack probe.
COMPILER_ENTRY_POINTS = {
    "objc_alloc": (10, 9), "objc_allocWithZone": (10, 9), "objc_alloc_init": (10, 14, 4),
    "objc_opt_new": (10, 15), "objc_opt_self": (10, 15), "objc_opt_class": (10, 15),
    "objc_opt_isKindOfClass": (10, 15), "objc_opt_respondsToSelector": (10, 15),
    "objc_unsafeClaimAutoreleasedReturnValue": (10, 11), "__chkstk_darwin": (10, 15),
}

# The macOS release a declaration's availability annotation names first.
INTRODUCED = [
    re.compile(r"\bmac(?:os|osx)\s*\(\s*(\d+)(?:\.(\d+))?(?:\.(\d+))?"),
    re.compile(r"\b__OSX_AVAILABLE(?:_STARTING|_BUT_DEPRECATED(?:_MSG)?)?\s*\(\s*__MAC_(\d+)_(\d+)(?:_(\d+))?"),
    re.compile(r"\b__OSX_AVAILABLE\s*\(\s*(\d+)(?:\.(\d+))?(?:\.(\d+))?\s*\)"),
    re.compile(r"\bOBJC_AVAILABLE\s*\(\s*(\d+)(?:\.(\d+))?(?:\.(\d+))?"),
    re.compile(r"\b(?:NS|CF)_(?:CLASS_)?(?:AVAILABLE|DEPRECATED)(?:_MAC)?\s*\(\s*(\d+)_(\d+)(?:_(\d+))?"),
    re.compile(r"\bAVAILABLE_MAC_OS_X_VERSION_(\d+)_(\d+)(?:_(\d+))?_AND_LATER\b"),
]
MACRO = r"[A-Z_][A-Z0-9_]*\s*\((?:[^()]|\((?:[^()]|\([^()]*\))*\))*\)"
# A class, not a category: no parenthesis after the name and its generic parameters.
CLASS_DECLARATION = re.compile(r"@interface\s+(\w+)\s*(?:<[^>]*>)?+\s*+(?!\()")
STRIPPED_MACROS = re.compile(rf"{MACRO}|__attribute__\s*\(\(.*?\)\)|\b__[a-z_]+\s*\([^()]*\)")


def introduced(annotation):
    versions = [version_tuple([g for g in m.groups() if g is not None])
                for pattern in INTRODUCED for m in pattern.finditer(annotation)]
    return max(versions) if versions else None


HEADERS = {}


def headers(folder):
    """The text of every header below `folder`, comments and line
    continuations removed."""
    if folder not in HEADERS:
        HEADERS[folder] = []
        for directory, _, files in os.walk(folder):
            for name in sorted(files):
                if name.endswith(".h"):
                    try:
                        with open(os.path.join(directory, name), encoding="latin-1") as f:
                            text = f.read()
                    except OSError:
                        continue  # the SDK's dangling links
                    HEADERS[folder].append(re.sub(r"/\*.*?\*/|//[^\n]*|\\\n", " ", text, flags=re.S))
    return HEADERS[folder]


def availability_index(sdk, dylibs, symbols):
    """Symbol -> the macOS release that introduced it, for the imported
    symbols that the headers of the linked libraries annotate."""
    folders = [os.path.join(sdk, "include")]
    for dylib in sorted(dylibs):
        m = re.match(r"/System/Library/Frameworks/(\w+)\.framework/", dylib)
        if m:
            folders.append(os.path.join(sdk, "Frameworks", m.group(1) + ".framework", "Headers"))
    texts = [text for folder in folders for text in headers(folder)]
    found = {}

    def note(symbol, version):
        if version and version > found.get(symbol, ()):
            found[symbol] = version

    classes = {s.split("_$_", 1)[1] for s in symbols if s.startswith(("_OBJC_CLASS_$_", "_OBJC_METACLASS_$_"))}
    functions = {s[1:] for s in symbols if s.startswith("_") and "$" not in s}
    name_pattern = re.compile(r"\b(" + "|".join(sorted(map(re.escape, functions))) + r")\b") if functions else None
    for text in texts:
        for m in CLASS_DECLARATION.finditer(text):
            if m.group(1) in classes:
                # Its annotations stand between the previous declaration and @interface.
                start = max(text.rfind(";", 0, m.start()), text.rfind("}", 0, m.start()),
                            text.rfind("@end", 0, m.start()) + 3) + 1
                annotation = "\n".join(line for line in text[start:m.start()].splitlines()
                                        if not line.lstrip().startswith("#"))
                for prefix in ("_OBJC_CLASS_$_", "_OBJC_METACLASS_$_"):
                    note(prefix + m.group(1), introduced(annotation))
        if not name_pattern:
            continue
        for m in name_pattern.finditer(text):
            start = max(text.rfind(c, 0, m.start()) for c in ";{}") + 1
            end = min((i for i in (text.find(";", m.end()), text.find("{", m.end())) if i >= 0), default=len(text))
            statement = "\n".join(line for line in text[start:end].splitlines()
                                  if not line.lstrip().startswith("#"))
            annotation = introduced(statement)
            if not annotation:
                continue
            # The statement declares the name: the first identifier before a
            # parenthesis once the macros are gone, or else the last one.
            bare = STRIPPED_MACROS.sub(" ", statement).strip()
            if bare.startswith(("-", "+", "@")):
                continue  # a method or property, which binds no symbol
            call = re.search(r"(\w+)\s*\(", bare)
            names = re.findall(r"\w+", bare)
            declared = call.group(1) if call else (names[-1] if names else None)
            if declared == m.group(1):
                note("_" + declared, annotation)
    for name, version in COMPILER_ENTRY_POINTS.items():
        note("_" + name, version_tuple(version))
    return found


# ---------------------------------------------------------------- checks

def check_info_plist(app, version):
    path = os.path.join(app, "Contents", "Info.plist")
    try:
        with open(path, "rb") as f:
            info = plistlib.load(f)
    except (OSError, plistlib.InvalidFileException, ValueError) as error:
        report(False, f"Info.plist: readable ({error})")
        return {}
    schemes = {s for t in info.get("CFBundleURLTypes", []) for s in t.get("CFBundleURLSchemes", [])}
    html_types = {t: d for d in info.get("CFBundleDocumentTypes", []) for t in d.get("LSItemContentTypes", [])}
    icon = info.get("CFBundleIconFile", "")
    icon_path = os.path.join(app, "Contents", "Resources", icon if icon.endswith(".icns") else icon + ".icns")
    executable = os.path.join(app, "Contents", "MacOS", info.get("CFBundleExecutable", "?"))
    minimum = info.get("LSMinimumSystemVersion", "")
    by_arch = info.get("LSMinimumSystemVersionByArchitecture", {})
    version_pattern = re.compile(r"^\d+(\.\d+){0,2}$")
    report(info.get("CFBundleIdentifier") == BUNDLE_ID, f"Info.plist: CFBundleIdentifier is {BUNDLE_ID}")
    report(info.get("CFBundlePackageType") == "APPL", "Info.plist: CFBundlePackageType is APPL")
    report(os.path.isfile(executable) and os.access(executable, os.X_OK),
           "Info.plist: CFBundleExecutable names an executable in Contents/MacOS")
    report(bool(info.get("CFBundleName")) and bool(info.get("CFBundleDisplayName")),
           "Info.plist: CFBundleName and CFBundleDisplayName are set")
    report(info.get("CFBundleShortVersionString") == version and info.get("CFBundleVersion") == version,
           f"Info.plist: CFBundleShortVersionString and CFBundleVersion are {version}")
    report(info.get("LSUIElement") is True, "Info.plist: LSUIElement is set (no Dock icon, no menu bar)")
    report({"http", "https"} <= schemes, "Info.plist: CFBundleURLTypes has http and https")
    report(all(t in html_types and html_types[t].get("CFBundleTypeRole") == "Viewer"
               and html_types[t].get("LSHandlerRank") == "Alternate" for t in ("public.html", "public.xhtml")),
           "Info.plist: CFBundleDocumentTypes has public.html and public.xhtml, role Viewer, rank Alternate")
    report(bool(version_pattern.match(minimum)) and isinstance(by_arch, dict)
           and all(isinstance(v, str) and version_pattern.match(v) for v in by_arch.values()),
           "Info.plist: LSMinimumSystemVersion (and by architecture) are versions")
    report(check_icns(icon_path), f"Info.plist: CFBundleIconFile names an .icns file with PNGs of 16 to 1024 pixels")
    return info


# An .icns chunk type and the edge, in pixels, of the PNG it holds.
ICNS_PNG_TYPES = {b"icp4": 16, b"icp5": 32, b"icp6": 64, b"ic07": 128, b"ic08": 256, b"ic09": 512,
                  b"ic10": 1024, b"ic11": 32, b"ic12": 64, b"ic13": 256, b"ic14": 512}


def png_is_whole(data):
    """A PNG signature, then chunks whose checksums hold, up to IEND."""
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        return False
    pos = 8
    while pos + 12 <= len(data):
        length, kind = struct.unpack_from(">I4s", data, pos)
        end = pos + 12 + length
        if end > len(data) or zlib.crc32(data[pos + 4:end - 4]) != struct.unpack_from(">I", data, end - 4)[0]:
            return False
        if kind == b"IEND":
            return end == len(data)
        pos = end
    return False


def check_icns(path):
    try:
        with open(path, "rb") as f:
            data = f.read()
    except OSError:
        return False
    if data[:4] != b"icns" or struct.unpack_from(">I", data, 4)[0] != len(data):
        return False
    pos, edges = 8, set()
    while pos < len(data):
        kind, length = data[pos:pos + 4], struct.unpack_from(">I", data, pos + 4)[0]
        if length < 8 or pos + length > len(data):
            return False
        chunk = data[pos + 8:pos + length]
        if kind in ICNS_PNG_TYPES:
            if not png_is_whole(chunk) or chunk[12:16] != b"IHDR":
                return False
            width, height = struct.unpack_from(">2I", chunk, 16)
            if width != ICNS_PNG_TYPES[kind] or height != width:
                return False
            edges.add(width)
        pos += length
    return {16, 32, 128, 256, 512, 1024} <= edges


def check_executables(app, info, sdk):
    minimum = info.get("LSMinimumSystemVersion", "0")
    by_arch = info.get("LSMinimumSystemVersionByArchitecture", {})
    executables = {}
    for name in EXECUTABLES:
        try:
            with open(os.path.join(app, "Contents", "MacOS", name), "rb") as f:
                executables[name] = slices(f.read())
        except (OSError, ValueError, IndexError, struct.error) as error:
            report(False, f"{name}: a readable Mach-O executable ({error})")
    # One reading of the headers for every symbol that any slice binds.
    every_slice = [slice_ for found in executables.values() for slice_ in found]
    index = availability_index(sdk, {d for s in every_slice for d in s.dylibs},
                               {symbol for s in every_slice for symbol, weak in s.imports if not weak})
    for name, found in executables.items():
        mode = os.stat(os.path.join(app, "Contents", "MacOS", name)).st_mode
        report(sorted(s.arch for s in found) == ["arm64", "x86_64"] and mode & 0o111 == 0o111,
               f"{name}: universal (x86_64 and arm64) and executable by everyone")
        for slice_ in found:
            label = f"{name} ({slice_.arch})"
            try:
                promise = version_tuple(by_arch.get(slice_.arch, minimum))
            except (ValueError, AttributeError):
                promise = (0, 0, 0)  # no promise that any binary could keep
            report(slice_.filetype == 2 and bool(slice_.flags & 0x1) and bool(slice_.flags & 0x200000),
                   f"{label}: a position-independent executable without undefined symbols")
            report(slice_.minos is not None and slice_.minos <= promise,
                   f"{label}: linked for macOS {version_text(slice_.minos or (0,))}, "
                   f"Info.plist promises {version_text(promise)}")
            foreign = [d for d in slice_.dylibs if not d.startswith(("/usr/lib/", "/System/Library/"))]
            report(not foreign and not slice_.rpaths,
                   f"{label}: loads only system libraries, no rpaths"
                   + (f" (has {', '.join(foreign + slice_.rpaths)})" if foreign or slice_.rpaths else ""))
            strong = {symbol for symbol, weak in slice_.imports if not weak}
            newer = sorted(f"{s} ({version_text(index[s])})" for s in strong if s in index and index[s] > promise)
            report(slice_.binds_read and not newer, f"{label}: binds nothing newer than macOS {version_text(promise)} strongly "
                              f"({len(strong)} symbols, {sum(1 for s in strong if s in index)} annotated)"
                   + (": " + ", ".join(newer) if newer else ""))
            if slice_.signature:
                try:
                    problems = check_signature(slice_, app)
                except (ValueError, IndexError, struct.error) as error:
                    problems = [f"unreadable ({error})"]
                report(not problems, f"{label}: code signature holds" + (": " + "; ".join(problems) if problems else ""))
            else:
                report(slice_.arch != "arm64", f"{label}: " + (
                    "unsigned (arm64 Macs run only signed code)" if slice_.arch == "arm64"
                    else "unsigned (Intel Macs run unsigned code; codesign signs it on a Mac)"))


def bundle_files(app):
    """Path inside the zip -> (mode, bytes or link target) for the bundle."""
    files = {}
    parent = os.path.dirname(os.path.abspath(app))
    for directory, folders, names in os.walk(app):
        for name in folders + names:
            path = os.path.join(directory, name)
            relative = os.path.relpath(path, parent) + ("/" if os.path.isdir(path) and not os.path.islink(path) else "")
            mode = os.lstat(path).st_mode
            if stat.S_ISLNK(mode):
                files[relative] = (mode, os.readlink(path).encode())
            elif stat.S_ISDIR(mode):
                files[relative] = (mode, b"")
            else:
                with open(path, "rb") as f:
                    files[relative] = (mode, f.read())
    files[os.path.basename(app) + "/"] = (os.lstat(app).st_mode, b"")
    return files


def check_zip(app, archive):
    try:
        with open(archive + ".sha256") as f:
            recorded = f.read().split()
        with open(archive, "rb") as f:
            digest = hashlib.sha256(f.read()).hexdigest()
        report(recorded == [digest, os.path.basename(archive)],
               f"{os.path.basename(archive)}.sha256: the zip's SHA-256 and name")
    except OSError as error:
        report(False, f"{os.path.basename(archive)}.sha256: readable ({error})")
    try:
        with zipfile.ZipFile(archive) as z:
            entries = {i.filename: (i.external_attr >> 16 if i.create_system == 3 else None, z.read(i))
                       for i in z.infolist()}
    except (OSError, zipfile.BadZipFile) as error:
        report(False, f"{os.path.basename(archive)}: a zip file ({error})")
        return
    expected = bundle_files(app)
    missing = sorted(set(expected) - set(entries))
    extra = sorted(set(entries) - set(expected))
    different = sorted(p for p in set(expected) & set(entries)
                       if entries[p][1] != expected[p][1] or entries[p][0] != expected[p][0])
    report(not missing and not extra and not different,
           f"{os.path.basename(archive)}: exactly {APP_NAME} with its files' bytes, types and modes"
           + "".join(f"; {what}: {', '.join(paths[:5])}" for what, paths in
                     (("missing", missing), ("extra", extra), ("different", different)) if paths))
    modes = {p: m for p, (m, _) in entries.items()}
    report(all(modes.get(f"{APP_NAME}/Contents/MacOS/{e}", 0) & 0o111 == 0o111 for e in EXECUTABLES),
           f"{os.path.basename(archive)}: the executables keep their execute bits")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--sdk", required=True)
    parser.add_argument("--version", required=True)
    parser.add_argument("app")
    parser.add_argument("zip", nargs="?")
    args = parser.parse_args()
    info = check_info_plist(args.app, args.version)
    check_executables(args.app, info, args.sdk)
    if args.zip:
        check_zip(args.app, args.zip)
    if failures:
        print(f"{failures} check(s) failed", file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
