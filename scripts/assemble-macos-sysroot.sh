#!/usr/bin/env bash
# Puts together a macOS SDK sysroot on Linux for scripts/check-macos.sh: Apple's framework
# headers and link stubs, plus the few newer or missing files that the macOS layer needs.
# Nothing it assembles is ever committed. docs/MACOS.md lists where each input comes from.
#
#   assemble-macos-sysroot.sh --frameworks-git DIR --extras DIR [--out DIR]
#
#   --frameworks-git  a git directory of hexops/xcode-frameworks (a macOS 14.2 SDK subset:
#                     Frameworks/, include/, lib/)
#   --extras          a folder with CATapDescription.h (macOS 26.0), SMAppService.h and
#                     ServiceManagement.tbd, libc++.1.tbd, libc++abi.tbd, libSystem.B.tbd and
#                     Sparkle-headers/*.h (Sparkle 2's public headers)
#   --out             where it goes (replaced); default /opt/brightmix-macos-sysroot, which
#                     check-macos.sh looks in. It gets sdk/ and ThirdParty/.
set -euo pipefail
git_dir="" extras="" out=/opt/brightmix-macos-sysroot
while [ $# -gt 0 ]; do
    case "$1" in
        --frameworks-git) git_dir=$2; shift 2 ;;
        --extras) extras=$2; shift 2 ;;
        --out) out=$2; shift 2 ;;
        *) echo "assemble-macos-sysroot: unknown argument $1" >&2; exit 2 ;;
    esac
done
[ -n "$git_dir" ] && [ -n "$extras" ] || { sed -n 5,16p "$0"; exit 2; }
for f in CATapDescription.h SMAppService.h ServiceManagement.tbd libc++.1.tbd libc++abi.tbd \
    libSystem.B.tbd Sparkle-headers/Sparkle.h; do
    [ -f "$extras/$f" ] || { echo "assemble-macos-sysroot: missing $extras/$f" >&2; exit 1; }
done

rm -rf "$out"
mkdir -p "$out/base" "$out/sdk/usr/lib" "$out/sdk/System/Library/Frameworks"
git --git-dir="$git_dir" archive HEAD Frameworks include lib | tar -x -C "$out/base"
base=$out/base S=$out/sdk
ln -s "$base/include" "$S/usr/include"

# Frameworks as folders of links, so that single headers can be replaced.
for fw in "$base"/Frameworks/*.framework; do
    d="$S/System/Library/Frameworks/$(basename "$fw")"
    mkdir -p "$d"
    for e in "$fw"/*; do
        [ "$(basename "$e")" = Versions ] || ln -s "$e" "$d/$(basename "$e")"
    done
done
# The tap description of the macOS 26 SDK (per-device exclusion, process restore, bundle IDs).
ca="$S/System/Library/Frameworks/CoreAudio.framework"
rm "$ca/Headers"
mkdir "$ca/Headers"
for h in "$base"/Frameworks/CoreAudio.framework/Headers/*.h; do ln -s "$h" "$ca/Headers/"; done
rm -f "$ca/Headers/CATapDescription.h"
cp "$extras/CATapDescription.h" "$ca/Headers/CATapDescription.h"
# ServiceManagement: SMAppService only, under an umbrella header of our own.
sm="$S/System/Library/Frameworks/ServiceManagement.framework"
mkdir -p "$sm/Headers"
cp "$extras/SMAppService.h" "$sm/Headers/"
cat >"$sm/Headers/ServiceManagement.h" <<'HEADER'
/* Umbrella for the cross build (the SDK's own also brings SMErrors.h and SMLoginItem.h). */
#ifdef __OBJC__
#import <ServiceManagement/SMAppService.h>
#endif
HEADER
cp "$extras/ServiceManagement.tbd" "$sm/"

# ld64.lld looks for re-exported libraries at <sysroot><install name>.tbd.
find -L "$base/Frameworks" "$sm" -name '*.tbd' | sort | while read -r tbd; do
    name=$(sed -n "s/^install-name: *'\(.*\)'$/\1/p" "$tbd" | head -n 1)
    [ -n "$name" ] || continue
    dest="$S${name%.dylib}.tbd"
    [ -e "$dest" ] && continue
    mkdir -p "$(dirname "$dest")"
    ln -s "$tbd" "$dest"
done

for f in "$base"/lib/*.tbd; do ln -s "$f" "$S/usr/lib/"; done
cp "$extras/libSystem.B.tbd" "$S/usr/lib/libSystem.B.tbd"
for l in libSystem libc libm libpthread libdl; do ln -s libSystem.B.tbd "$S/usr/lib/$l.tbd"; done
cp "$extras/libc++.1.tbd" "$extras/libc++abi.tbd" "$S/usr/lib/"
ln -s libc++.1.tbd "$S/usr/lib/libc++.tbd"

# Sparkle 2: its public headers, and a link stub listing what they export (every SU_EXPORT
# class and constant), so that the link resolves the framework's public API and nothing else.
sp="$out/ThirdParty/Sparkle.framework"
mkdir -p "$sp/Versions/B/Headers"
cp "$extras"/Sparkle-headers/*.h "$sp/Versions/B/Headers/"
ln -s B "$sp/Versions/Current"
ln -s Versions/Current/Headers "$sp/Headers"
headers=("$extras"/Sparkle-headers/*.h)
classes=$(sed -n 's/^SU_EXPORT @interface \([A-Za-z0-9_]*\).*/\1/p' "${headers[@]}" | sort -u |
    paste -sd, | sed 's/,/, /g')
constants=$(grep -ho 'SU_EXPORT[^;]*const[[:space:]]*[A-Za-z0-9_]*;' "${headers[@]}" |
    sed 's/.*const[[:space:]]*\([A-Za-z0-9_]*\);/_\1/' | sort -u | paste -sd, | sed 's/,/, /g')
cat >"$sp/Sparkle.tbd" <<TBD
--- !tapi-tbd
tbd-version:     4
targets:         [ arm64-macos ]
install-name:    '@rpath/Sparkle.framework/Versions/B/Sparkle'
current-version: 2039.1
compatibility-version: 1.6
exports:
  - targets:         [ arm64-macos ]
    symbols:         [ $constants ]
    objc-classes:    [ $classes ]
...
TBD

echo "sysroot ready: $S (Sparkle: $out/ThirdParty)"
