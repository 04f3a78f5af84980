#!/usr/bin/env bash
# Fails when a C or C++ source of the project is not formatted by .clang-format.
set -euo pipefail
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
cd "$ROOT"
mapfile -t files < <(find blocks platform tools tests bench -type f \
    \( -name '*.c' -o -name '*.cc' -o -name '*.h' \) 2>/dev/null | sort)
# One clang-format for all files: a process per file takes minutes on a busy machine.
if clang-format --dry-run -Werror "${files[@]}" >/dev/null 2>&1; then
    echo "checked ${#files[@]} files, 0 not formatted"
    exit 0
fi
bad=0
for file in "${files[@]}"; do
    if ! clang-format --dry-run -Werror "$file" >/dev/null 2>&1; then
        echo "not formatted: $file (run: clang-format -i $file)"
        bad=$((bad + 1))
    fi
done
echo "checked ${#files[@]} files, $bad not formatted"
[ "$bad" -eq 0 ]
