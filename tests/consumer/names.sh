#!/usr/bin/env bash
# names.sh BUILD: compiles names.cpp with each compiler and language, runs it, and checks what the library of BUILD
# stored.
set -euo pipefail
build=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$build/consumer/names
warnings=(-Wall -Wextra -Wpedantic -Weffc++ -Wshadow -Wconversion -Werror)
mkdir -p "$work"

# stored TEXT COUNT: checks how often TEXT is in the report on the home.
stored() {
  local found
  found=$(grep -cF -- "$1" "$work/report") || true
  [[ $found == "$2" ]] || { echo "$found times: $1"; cat "$work/report" "$work/errors"; exit 1; }
}

for compiler in g++ clang++; do
  command -v "$compiler" >/dev/null || { echo "$compiler is not installed"; continue; }
  for language in c++17 c++20; do
    extra=()
    if [[ $compiler == g++ ]]; then extra=(-Wuseless-cast); fi
    "$compiler" "-std=$language" "${warnings[@]}" "${extra[@]}" -I"$here/../../include" "$here/names.cpp" \
      -o "$work/names" -L"$build/src" -lkelvo "-Wl,-rpath,$build/src"
    rm -rf "$work/home"
    # Without an endpoint: the library collects and waits.
    env -u KELVO_SERVER_BASE_URL KELVO_HOME="$work/home" KELVO_LOG=warn "$work/names" >/dev/null 2>"$work/errors"
    cp "$work/errors" "$work/report"
    stored "<KLV WARN> Ignoring a screen without a view controller" 2
    # The next launch stores what the end of the host saved.
    env -u KELVO_SERVER_BASE_URL KELVO_HOME="$work/home" "$build/tools/kelvo-log/kelvo-log" --app-id names \
      </dev/null >/dev/null 2>&1 || [[ $? == 3 ]]
    inspect=$build/tools/kelvo-inspect/kelvo-inspect
    { "$inspect" --json --events "$work/home" | sed 's/},{/},\n{/g'; "$inspect" "$work/home"; } >"$work/report"
    stored '"name":"Nested","attributes":{"d":"{\"x\":1}"' 1
    for flat in Flat Old; do stored "\"name\":\"$flat\",\"attributes\":{\"d_x\":1" 1; done
    stored '"name":"Plain"' 1
    for screen in Cart Help; do stored "\"kind\":\"Navigation\",\"name\":\"$screen\"" 1; done
    stored "  Count  " 1
    for counted in OldCount FlatCount; do stored "  $counted  " 2; done
    stored "  FlatCount  d_x  " 1
  done
done
