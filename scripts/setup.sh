#!/usr/bin/env bash
# Installs the Debian packages a command needs; does nothing for those already present.
#
#   scripts/setup.sh sample   build the library and the tool: cmake, g++, pugixml, CLI11, nlohmann-json, and
#                             cpp-httplib (with pkg-config) for the server of `blockproc view`
#   scripts/setup.sh test     sample, GoogleTest / GoogleMock, the Python module's packages, and headless
#                             Chromium with its driver and Selenium for the browser tests (the default)
#   scripts/setup.sh python   sample, and pybind11 with Debian's python3, pytest, numpy, pandas, dask, distributed
#   scripts/setup.sh fuzz     sample, and clang with its sanitizer runtime for the libFuzzer targets
#   scripts/setup.sh bench    sample, and Google Benchmark
#   scripts/setup.sh format   clang-format
#
# Other words are further Debian packages (scripts/valgrind.sh adds valgrind). Works as root on a fresh
# Debian 12 machine; otherwise installs through sudo.
set -euo pipefail
sample=(cmake make g++ libpugixml-dev libcli11-dev nlohmann-json3-dev libcpp-httplib-dev pkgconf)
browser=(chromium chromium-driver python3-selenium fonts-nanum)
python=(python3-dev pybind11-dev python3-pytest python3-numpy python3-pandas python3-dask python3-distributed)
want=()
profile=0
for word in "$@"; do
  case "$word" in
    sample) want+=("${sample[@]}"); profile=1 ;;
    test) want+=("${sample[@]}" libgtest-dev libgmock-dev "${python[@]}" "${browser[@]}"); profile=1 ;;
    python) want+=("${sample[@]}" "${python[@]}"); profile=1 ;;
    fuzz) want+=("${sample[@]}" clang libclang-rt-14-dev); profile=1 ;;
    bench) want+=("${sample[@]}" libbenchmark-dev time); profile=1 ;;
    format) want+=(clang-format); profile=1 ;;
    *) want+=("$word") ;;
  esac
done
((profile)) || want+=("${sample[@]}" libgtest-dev libgmock-dev "${python[@]}" "${browser[@]}")
need=()
for pkg in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || need+=("$pkg")
done
if ((${#need[@]})); then
  mapfile -t need < <(printf '%s\n' "${need[@]}" | sort -u)
  echo "setup: installing ${need[*]}" >&2
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi
