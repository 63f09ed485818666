#!/usr/bin/env bash
# Formats every C and C++ file of the tree with clang-format (.clang-format at the root; the
# C header and the C examples keep C's pointer style through their own files).
#   tools/format.sh           rewrite the files in place
#   tools/format.sh --check   change nothing; list unformatted files and fail if there are any
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh format
mapfile -t files < <(git ls-files --cached --others --exclude-standard '*.c' '*.cpp' '*.h')
if [ "${1:-}" = --check ]; then
    bad=()
    for f in "${files[@]}"; do
        [ -f "$f" ] || continue
        clang-format --dry-run --Werror "$f" >/dev/null 2>&1 || bad+=("$f")
    done
    if [ ${#bad[@]} -gt 0 ]; then
        echo "Not formatted (run tools/format.sh):" >&2
        printf '  %s\n' "${bad[@]}" >&2
        exit 1
    fi
    echo "clang-format: ${#files[@]} files clean"
else
    clang-format -i "${files[@]}"
fi
