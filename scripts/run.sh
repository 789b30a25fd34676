#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs what is missing, builds Larimo and stages the app folder in build/app/.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DLARIMO_BUILD_TESTS=OFF >/dev/null
cmake --build build

app=build/app
echo
echo "Larimo is staged in $app/:"
(cd "$app" && find . -maxdepth 2 -mindepth 1 | sort | sed 's|^\./|  |')
if [[ -x "$app/larimo" ]]; then
  exec "$app/larimo" "$@"
fi
echo
echo "The control panel is not built yet; the folder above holds what exists so far."
