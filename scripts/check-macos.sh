#!/usr/bin/env bash
# Cross-compiles the macOS layer on Linux against a macOS SDK sysroot and links Brightmix.app:
# every source of platform/macos and app/macos (and the portable core they use) is compiled by
# clang for arm64-apple-macos26.0 with warnings as errors, unguarded-availability warnings on,
# and the app is linked by ld64.lld against the SDK's stubs, which catches a misspelt class, a
# missing framework or an undefined function. Nothing is run.
#
# The sysroot: BRIGHTMIX_MACOS_SYSROOT, else /opt/brightmix-macos-sysroot/sdk
# (scripts/assemble-macos-sysroot.sh puts one there; docs/MACOS.md lists its inputs). Without
# one the check says so in one line and succeeds, as on any machine without an SDK.
set -euo pipefail
cd "$(dirname "$0")/.."

sysroot=${BRIGHTMIX_MACOS_SYSROOT:-/opt/brightmix-macos-sysroot/sdk}
if [ ! -d "$sysroot/System/Library/Frameworks/CoreAudio.framework" ]; then
    echo "macOS cross-compile skipped: no macOS SDK sysroot at $sysroot (set BRIGHTMIX_MACOS_SYSROOT; see docs/MACOS.md)"
    exit 0
fi
third_party=${BRIGHTMIX_MACOS_THIRD_PARTY:-$(dirname "$sysroot")/ThirdParty}
llvm=${BRIGHTMIX_LLVM_BIN:-}
if [ -z "$llvm" ]; then
    for candidate in /usr/lib/llvm-19/bin /usr/lib/llvm-14/bin; do
        if [ -x "$candidate/clang++" ] && [ -x "$candidate/ld64.lld" ]; then
            llvm=$candidate
            break
        fi
    done
fi
if [ -z "$llvm" ]; then
    echo "check-macos: a sysroot is here but no clang with ld64.lld (apt-get install clang-19 lld-19)" >&2
    exit 1
fi

build=build/macos-cross
# The JSON library is header-only: hand the cross build a folder with just its headers, so
# that no host system header comes along.
json_headers=""
for candidate in /usr/include/nlohmann build/ci/_deps/nlohmann_json-src/include/nlohmann; do
    if [ -f "$candidate/json.hpp" ]; then
        json_headers=$candidate
        break
    fi
done
[ -n "$json_headers" ] || { echo "check-macos: nlohmann/json.hpp not found" >&2; exit 1; }
mkdir -p "$build/json"
rm -rf "$build/json/nlohmann"
cp -r "$json_headers" "$build/json/nlohmann"

BRIGHTMIX_MACOS_SYSROOT=$sysroot BRIGHTMIX_MACOS_THIRD_PARTY=$third_party \
    cmake -S . -B "$build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/MacOSCrossToolchain.cmake" \
    -DBRIGHTMIX_LLVM_BIN="$llvm" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBRIGHTMIX_WERROR=ON \
    -DBRIGHTMIX_TESTS=OFF -DBRIGHTMIX_BENCHMARKS=OFF -DBRIGHTMIX_LINUX_BACKEND=OFF \
    -DBRIGHTMIX_JSON_INCLUDE_DIR="$PWD/$build/json" >/dev/null
cmake --build "$build" -j "${BRIGHTMIX_JOBS:-$(nproc)}"

app=$build/app/macos/Brightmix.app
binary=$app/Contents/MacOS/Brightmix
[ -f "$binary" ] || { echo "check-macos: $binary was not linked" >&2; exit 1; }
# A 64-bit Mach-O file starts with cf fa ed fe; arm64 is CPU type 0x0100000c.
[ "$(od -An -tx1 -N8 "$binary" | tr -d ' \n')" = "cffaedfe0c000001" ] ||
    { echo "check-macos: $binary is not an arm64 Mach-O executable" >&2; exit 1; }
for file in Info.plist Resources/MenuBarIcon.pdf; do
    [ -f "$app/Contents/$file" ] || { echo "check-macos: $app/Contents/$file is missing" >&2; exit 1; }
done
# The default build has no update key: Info.plist must leave SUPublicEDKey out entirely.
if grep -q SUPublicEDKey "$app/Contents/Info.plist"; then
    echo "check-macos: the default Info.plist carries SUPublicEDKey" >&2
    exit 1
fi
sources=$(find platform/macos app/macos -name '*.mm' -o -name '*.cpp' | wc -l)
echo "macOS cross-compile: $sources sources of platform/macos and app/macos compiled with -Werror;" \
    "Brightmix.app linked for arm64 against $sysroot"
