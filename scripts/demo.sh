#!/usr/bin/env bash
# The main job: builds the library and its tools in build/, installs them
# into build/install, and runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build build -j"$(nproc)" >/dev/null
cmake --install build --prefix build/install >/dev/null
exec build/install/bin/wmctl demo "$@"
