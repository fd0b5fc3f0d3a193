#!/usr/bin/env bash
# Sets up, builds the blockproc tool and decodes the bundled current-price reply. Extra words go to decode
# (--format json, --raw, ...). Builds in the same directory, with the same settings, as scripts/test.sh, so
# running both compiles the library once.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh sample
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBLOCKPROC_WERROR=ON -DBLOCKPROC_BUILD_TESTS=OFF >/dev/null
cmake --build build -j "$(nproc)" --target blockproc_cli
build/tools/blockproc/blockproc decode examples/current_price.xml examples/current_price.reply "$@"
