#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with; does nothing for those already present.
set -euo pipefail
need=()
for pkg in cmake make g++ clang libclang-rt-14-dev clang-format libgtest-dev libgmock-dev libbenchmark-dev \
  libpugixml-dev libcli11-dev nlohmann-json3-dev \
  python3-dev pybind11-dev python3-pytest python3-numpy python3-pandas python3-dask python3-distributed "$@"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || need+=("$pkg")
done
if ((${#need[@]})); then
  echo "setup: installing ${need[*]}" >&2
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi
