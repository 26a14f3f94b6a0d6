#!/usr/bin/env bash
# Checks the naming rules of .clang-tidy on every source of the libraries and
# tools, using the compile commands of a configured build (default build/).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-"$root/build"}
cd "$root"
[ -f "$build/compile_commands.json" ] || cmake -S . -B "$build" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
git ls-files -z 'libOrvaneExt/*.cpp' 'libOrvane/*.cpp' 'OrvaneAPI/*.cpp' 'tools/*.cpp' |
  xargs -0 -n 8 -P "$(nproc)" clang-tidy -p "$build" --quiet --extra-arg=-w 2>/dev/null

# Members carry their type letter before the name proper (m_nCount, m_poClient):
# clang-tidy checks only the m_ and the camelBack, so m_count would pass it.
untyped=$(git ls-files 'libOrvaneExt/*' 'libOrvane/*' 'OrvaneAPI/*' 'tools/*' main.cpp 'socket_can.*' 'service_notify.*' |
  grep -E '\.(cpp|h)$' | xargs grep -nP '\bm_(?![a-z]+[A-Z0-9])\w+' || true)
if [ -n "$untyped" ]; then
  echo "members without a type letter:" >&2
  echo "$untyped" >&2
  exit 1
fi
