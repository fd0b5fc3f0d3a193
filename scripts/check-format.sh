#!/usr/bin/env bash
# Fails when a C++ file of the project is not formatted as .clang-format says.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh format
git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror
echo "clang-format: $(git ls-files '*.h' '*.cpp' | wc -l) files clean"
