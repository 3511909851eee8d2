#!/usr/bin/env bash
# Reads the sources without running them: both compilers with all warnings as errors, clang's lock
# analysis among them, then cppcheck, then clang-tidy.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root
cd "$root"

scripts/setup.sh --campaign
scripts/build.sh dev -DZEL_BUILD_TESTS=ON -DZEL_BUILD_BENCH=ON -DZEL_BUILD_CAMPAIGN=ON
scripts/build.sh release -DZEL_WERROR=ON -DZEL_BUILD_TESTS=ON -DZEL_BUILD_BENCH=ON -DZEL_BUILD_CAMPAIGN=ON

echo "static: cppcheck" >&2
# noexcept: this cppcheck cannot read one before a function's try. passedByValue: clang-tidy knows
# the same, and which signatures are the interface's. StlMissingComparison takes a tested second
# step of an iterator for an untested one.
cppcheck -I commonutil -I platform -I platform/include --language=c++ --std=c++17 --quiet \
  -j "$(nproc)" --enable=warning,performance,portability -Dnoexcept= --inline-suppr \
  --suppress=passedByValue --suppress=StlMissingComparison --error-exitcode=1 \
  commonutil platform tools bench fuzz campaign

echo "static: clang-tidy" >&2
run-clang-tidy -p build/dev -j "$(nproc)" -quiet "^$root/(commonutil|platform|tools)/.*\.cpp\$" \
  >build/dev/clang-tidy.log 2>&1 || true
if grep -E '(warning|error): ' build/dev/clang-tidy.log | sort -u; then
  echo "static: clang-tidy's report is in build/dev/clang-tidy.log" >&2
  exit 1
fi
echo "static: nothing found" >&2
