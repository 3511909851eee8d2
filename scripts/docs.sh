#!/usr/bin/env bash
# Builds the site of the public headers and of the pages in build/docs/html; fails on any warning,
# so whatever hosts can see has a comment and every link has an end.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root
readonly out=$root/build/docs

"$root/scripts/setup.sh" --docs
cd "$root"
rm -rf "$out"
mkdir -p "$out/include"
# The headers under the names that hosts include them by.
ln -s "$root/commonutil" "$out/include/zel_utils"
ln -s "$root/platform/include/zel_platform" "$out/include/zel_platform"

# What commonutil/CMakeLists.txt installs.
mapfile -t headers < <(sed -n '/FILE_SET HEADERS FILES/,/)/p' commonutil/CMakeLists.txt |
  grep -o '[A-Za-z_/]*\.h')
mapfile -t headers < <(printf "$out/include/zel_utils/%s\n" "${headers[@]}" &&
  printf '%s\n' "$out"/include/zel_platform/*.h)

{
  cat docs/doxygen/Doxyfile
  echo "OUTPUT_DIRECTORY = $out"
  echo "STRIP_FROM_PATH = $out/include $root"
  echo "STRIP_FROM_INC_PATH = $out/include"
  echo "INPUT = README.md docs/doxygen/groups.dox" docs/*.md "${headers[@]}"
} | doxygen -
echo "docs: build/docs/html/index.html" >&2
