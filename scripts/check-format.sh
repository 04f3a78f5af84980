#!/usr/bin/env bash
# Fails when a C or C++ source of the project is not formatted by .clang-format.
set -euo pipefail
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
cd "$ROOT"
mapfile -t files < <(find blocks platform tools tests bench -type f \
    \( -name '*.c' -o -name '*.cc' -o -name '*.h' \) 2>/dev/null | sort)
bad=0
for file in "${files[@]}"; do
    if ! clang-format --dry-run -Werror "$file" >/dev/null 2>&1; then
        echo "not formatted: $file (run: clang-format -i $file)"
        bad=$((bad + 1))
    fi
done
echo "checked ${#files[@]} files, $bad not formatted"
[ "$bad" -eq 0 ]
