#!/usr/bin/env bash
# Keeps the layer rule honest: arrows only point down
#   realtime <- platform interfaces <- Brightmix, ui <- platform implementations, app.
set -euo pipefail
cd "$(dirname "$0")/.."

status=0
fail() {
    echo "check-layers: $1" >&2
    echo "$2" >&2
    status=1
}

grep_includes() {  # folder, pattern
    [ -d "$1" ] || return 0
    grep -rnE --include='*.h' --include='*.c' --include='*.cpp' --include='*.mm' \
        "^[[:space:]]*#[[:space:]]*include[[:space:]]*[<\"]($2)" "$1" || true
}

os_headers='pipewire/|spa/|plist/|sndfile|libav|libsw|Q[A-Za-z]+|CoreAudio/|AudioToolbox/|AppKit/|Foundation/|CoreFoundation/|unistd\.h|sys/|pthread\.h|dlfcn\.h|fcntl\.h|signal\.h'

hits=$(grep_includes realtime "platform/|Brightmix/|ui/|app/|$os_headers")
[ -z "$hits" ] || fail "realtime/ includes only libc, libm and itself" "$hits"

hits=$(grep -rnE --include='*.h' --include='*.cpp' \
    "^[[:space:]]*#[[:space:]]*include[[:space:]]*[<\"](Brightmix/|ui/|app/|platform/(sim|linux|macos)/|$os_headers)" \
    platform --exclude-dir=sim --exclude-dir=linux --exclude-dir=macos || true)
[ -z "$hits" ] || fail "platform/ interfaces include no implementation, OS or app header" "$hits"

for layer in Brightmix ui; do
    hits=$(grep_includes "$layer" "platform/(sim|linux|macos)/|app/|$os_headers")
    [ -z "$hits" ] || fail "$layer/ includes no OS header and no platform implementation" "$hits"
done

hits=$(grep_includes ui "Brightmix/|platform/|realtime/|app/")
[ -z "$hits" ] || fail "ui/ depends on nothing but the standard library" "$hits"

hits=$(grep_includes platform/sim "platform/(linux|macos)/|app/|Brightmix/")
[ -z "$hits" ] || fail "platform/sim/ stands beside the other implementations, below the app" "$hits"

hits=$(find . -path ./build -prune -o -name '*.mm' -print | grep -v '/macos/' || true)
[ -z "$hits" ] || fail "Objective-C++ lives only under */macos/" "$hits"

[ "$status" -eq 0 ] && echo "check-layers: the layer rule holds"
exit "$status"
