#!/usr/bin/env bash
# Fails when a C or C++ source of the project differs from what clang-format (.clang-format) makes
# of it. The whole tree was formatted once; keep it so with `clang-format -i <files>`.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
cd "$here"
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  mapfile -t files < <(git ls-files '*.cpp' '*.h' '*.c')
else
  mapfile -t files < <(find entry plugin support sdk host tests bench examples -name '*.cpp' -o -name '*.h' -o -name '*.c')
fi
if ! clang-format --dry-run --Werror "${files[@]}"; then
  echo "format-check: unformatted code; run clang-format -i on the files named above" >&2
  exit 1
fi
echo "format-check: ${#files[@]} files as clang-format makes them"
