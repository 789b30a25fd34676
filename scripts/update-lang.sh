#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Regenerates data/lang/larimo_en.tra from the string table (src/StringTable.inc) and reports
# what every other language file lacks. Run it after changing a text of the table.
#   scripts/update-lang.sh [build directory, default build-lang]
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build-lang}
if [[ ! -f "$build/build.ninja" ]]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DLARIMO_BUILD_TESTS=OFF -DLARIMO_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" --target larimo-langtool >/dev/null
tool="$build/tools/larimo-langtool"

"$tool" template >data/lang/larimo_en.tra.new
mv data/lang/larimo_en.tra.new data/lang/larimo_en.tra
echo "update-lang: wrote data/lang/larimo_en.tra"

status=0
for file in data/lang/*.tra; do
  [[ "$file" == data/lang/larimo_en.tra ]] && continue
  "$tool" check "$file" || status=1
done
exit "$status"
