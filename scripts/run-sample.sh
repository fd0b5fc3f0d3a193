#!/usr/bin/env bash
# Sets up, builds the blockproc tool and decodes the bundled current-price reply.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DBLOCKPROC_BUILD_TESTS=OFF >/dev/null
cmake --build build-release -j "$(nproc)" --target blockproc_cli
build-release/tools/blockproc/blockproc decode examples/current_price.xml examples/current_price.reply "$@"
