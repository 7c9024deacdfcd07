#!/usr/bin/env bash
# Every C++ file of the project follows the committed .clang-format.
# Skipped (77) where clang-format is not installed.
set -euo pipefail
cd "$1"
command -v clang-format >/dev/null || { echo "clang-format is not installed"; exit 77; }
mapfile -t files < <(git ls-files -- 'src/*.cpp' 'src/*.h' 'tests/*.cpp' 'tests/*.h' 'bench/*.cpp' 'fuzz/*.cpp' 2>/dev/null ||
                     find src tests bench fuzz \( -name '*.cpp' -o -name '*.h' \))
clang-format --dry-run --Werror "${files[@]}"
echo "${#files[@]} files follow .clang-format"
