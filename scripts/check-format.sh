#!/usr/bin/env bash
# Fails when a C or C++ source is not formatted as .clang-format says.
# With --fix, rewrites the files instead.
set -euo pipefail
cd "$(dirname "$0")/.."

if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    mapfile -t files < <(git ls-files --cached --others --exclude-standard \
        -- '*.c' '*.cpp' '*.h' '*.mm' | while read -r f; do [ -f "$f" ] && echo "$f"; done)
else
    mapfile -t files < <(find realtime platform Brightmix ui app tests bench fuzz \
        -name '*.c' -o -name '*.cpp' -o -name '*.h' -o -name '*.mm' 2>/dev/null)
fi

if [ "${1:-}" = "--fix" ]; then
    clang-format -i "${files[@]}"
    exit 0
fi

clang-format --dry-run --Werror "${files[@]}"
echo "check-format: ${#files[@]} files formatted"
