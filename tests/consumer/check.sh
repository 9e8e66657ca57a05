#!/usr/bin/env bash
# check.sh WAY BUILD: tests one WAY to get the library.
#   install                               installs the library of BUILD, for the ways that need it
#   shared, static, pkg-config            builds a consumer, which must start from its bundle and deliver its event
#   checkout, clang                       the same with Kelvo as a sub-project of hosts with unusual settings
#   c, rust, go, perl                     build examples/*/hello.*, which must deliver its event; c with both libraries
#   python                                builds a wheel, and runs examples/python/hello.py and a test of a host in a virtual
#                                         environment with it
#   quick                                 builds and runs a program in QML; qmllint knows the module
#   plugin                                builds examples/nag, whose bundle gets a plug-in in a shared object, and runs it;
#                                         configures it again with Kelvo as a sub-project
#   kit, c-kit                            build and run tests of a host with Kelvo::testing, and in C with Kelvo::c_testing
#   qt-kit                                builds and runs tests of hosts with Kelvo::qt_testing and Kelvo::quick_testing
#   demo                                  scripts/demo, whose unity build must compile
#   deb                                   installs the Debian packages, checks them, stores an event with the installed
#                                         kelvo-server, and removes them
set -euo pipefail
way=$1 build=$2
here=$(cd "$(dirname "$0")" && pwd)
examples=$(realpath "$here/../../examples")
prefix=$build/consumer/prefix work=$build/consumer/$way
strict=(-Wall -Wextra -Weffc++ -Wuseless-cast -Werror) # a host's warnings, which our headers must not cause

# with_collector COMMAND...: runs COMMAND with a fresh home and a collector.
with_collector() (
  export KELVO_HOME=$work/home
  rm -rf "$KELVO_HOME"
  coproc COLLECTOR { exec "$build/tools/kelvo-collector/kelvo-collector" --port 0; }
  trap 'kill "$COLLECTOR_PID"' EXIT
  local line
  read -r -t 20 line <&"${COLLECTOR[0]}"
  KELVO_SERVER_BASE_URL=$(grep -o 'http://[0-9.:]*' <<<"$line")
  export KELVO_SERVER_BASE_URL
  "$@"
)

# delivered PROGRAM: runs it, delivers its stored events with kelvo-log, and checks that its event arrived.
delivered() {
  "$1"
  KELVO_BUNDLE=$1.bundle "$build/tools/kelvo-log/kelvo-log" </dev/null
  curl -fsS "$KELVO_SERVER_BASE_URL/debug/requests" | python3 "$here/expect.py"
}

# arrived NAME: prints how many events of this name the collector has.
arrived() {
  curl -fsS "$KELVO_SERVER_BASE_URL/debug/counts" | python3 -c 'import json, sys
print(sum(row["count"] for row in json.load(sys.stdin)["byName"] if row["name"] == sys.argv[1]))' "$1"
}

# greeted PROGRAM: runs a program in QML as `delivered` does, and checks the attributes that QML has set.
greeted() {
  delivered "$1"
  curl -fsS "$KELVO_SERVER_BASE_URL/debug/requests" >"$work/requests.json"
  python3 "$here/quick/expect.py" <"$work/requests.json"
}

# first_program PROGRAM: runs the README's first program, which must deliver its event once, before it ends, and print
# nothing.
first_program() {
  local output purchases
  output=$("$1" 2>&1)
  [[ -z $output ]] || { echo "the README's program prints: $output"; return 1; }
  purchases=$(arrived Purchase)
  [[ $purchases == 1 ]] || { echo "the README's purchase arrived $purchases times"; return 1; }
}

# says_hello PROGRAM...: runs each example, which must deliver its greeting once, before it ends, and print nothing.
says_hello() {
  local program output greetings=0
  for program; do
    output=$("$program" 2>&1) || { echo "$program fails: $output"; return 1; }
    [[ -z $output ]] || { echo "$program prints: $output"; return 1; }
    greetings=$((greetings + 1))
    [[ $(arrived Greeting) == "$greetings" ]] || { echo "$program delivers $(arrived Greeting) greetings"; return 1; }
  done
}

# find_with_pkg_config: lets pkg-config and programs find the installed library.
find_with_pkg_config() {
  PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name kelvo.pc)")
  export PKG_CONFIG_PATH LD_LIBRARY_PATH=$prefix/lib:$prefix/lib/$(gcc -print-multiarch)
}

# needs PROGRAM: skips the test where PROGRAM is not installed.
needs() { command -v "$1" >/dev/null || { echo "$1 is not installed"; exit 77; }; }

# names_delivery RULES: checks the rules of delivery in the consumer's bundle.
names_delivery() { grep -q "<key>KelvoDelivery</key><string>$1</string>" "$work/consumer.bundle/Info.plist"; }

# refuses_a_changed_registry: a build fails if the registry no longer has a value that the code uses, or has a fault.
refuses_a_changed_registry() {
  local events=$work/kelvo-events.json before change
  before=$(realpath "$here/../../examples/registry/kelvo-events.json")
  cp "$before" "$events"
  cmake "$work" "-DCONSUMER_EVENTS=$events"
  cmake --build "$work" --target consumer
  for change in 's/"book"/"novel"/' 's/"min": 0/"min": 5000/'; do
    sed "$change" "$before" >"$events"
    if cmake --build "$work" --target consumer >"$work/build.log"; then exit 1; fi
    grep -E "registry.cpp:.*error: .book. is not a member|events\[[0-9]+\].attributes\[[0-9]+\].min: min is above max" \
      "$work/build.log"
  done
  cmake "$work" "-DCONSUMER_EVENTS=$before"
}

configured() {
  cmake -S "$here" -B "$work" -G Ninja "$@"
  cmake --build "$work" --target consumer
  names_delivery complete
  with_collector delivered "$work/consumer"
}

# stores_an_event PROGRAMS: starts the kelvo-server in PROGRAMS with an empty database, and sends it an event. For
# scripts/postgres exec.
stores_an_event() {
  export KELVO_SERVER_LISTEN=127.0.0.1:0 KELVO_SERVER_ADMIN=127.0.0.1:0 KELVO_HOME=$work/home
  local line
  rm -rf "$KELVO_HOME"
  "$1/kelvo-server" migrate
  coproc SERVER { exec "$1/kelvo-server"; }
  read -r -t 20 line <&"${SERVER[0]}"
  KELVO_SERVER_BASE_URL=http://$(sed 's/^listening on \([^,]*\),.*/\1/' <<<"$line")
  export KELVO_SERVER_BASE_URL
  echo '{"name": "Packaged"}' | "$1/kelvo-log" --app-id packaged --delivery complete
  [[ $(psql -XAtc "SELECT count(*) FROM events WHERE name = 'Packaged'") == 1 ]]
  local server=$SERVER_PID
  kill "$server"
  wait "$server"
}

case $way in
install)
  rm -rf "$prefix"
  cmake --install "$build" --prefix "$prefix"
  ;;
shared)
  configured "-DCMAKE_PREFIX_PATH=$prefix" -DCONSUMER_DELIVERY=
  cmake "$work" -DCONSUMER_DELIVERY=classic
  names_delivery classic
  if cmake "$work" -DCONSUMER_DELIVERY=everything 2>/dev/null; then exit 1; fi
  cmake "$work" "-DCONSUMER_DELIVERY=classic;CONSENT;required"
  grep -q "<key>KelvoConsent</key><string>required</string>" "$work/consumer.bundle/Info.plist"
  if cmake "$work" "-DCONSUMER_DELIVERY=classic;CONSENT;maybe" 2>/dev/null; then exit 1; fi
  cmake "$work" -DCONSUMER_DELIVERY= # the next run begins as this one did
  refuses_a_changed_registry
  ;;
static)
  configured "-DCMAKE_PREFIX_PATH=$prefix" -DKELVO_TARGET=Kelvo::kelvo_static
  ! ldd "$work/consumer" | grep libkelvo
  ;;
checkout | clang)
  # Only these parts of the checkout are needed. Unity builds save time, and must compile, too: scripts/demo is one.
  work="$work/my projects" checkout="$work/kelvo"
  rm -rf "$checkout" && mkdir -p "$checkout"
  cp -r "$here"/../../{CMakeLists.txt,README.md,SECURITY.md,cmake,docs,include,packaging,src} "$checkout"
  mkdir "$checkout/tools"
  cp -r "$here"/../../tools/kelvo-{events,service} "$checkout/tools"
  host=("-DKELVO_CHECKOUT=$checkout" -DCMAKE_UNITY_BUILD=ON)
  if [[ $way == clang ]]; then
    configured "${host[@]}" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS="-Weverything -Werror \
      -Wno-c++98-compat -Wno-c++98-compat-pedantic -Wno-padded -Wno-weak-vtables" -DKELVO_QT=OFF \
      -DKELVO_TARGET=Kelvo::kelvo_static
  else
    configured "${host[@]}" "-DCMAKE_CXX_FLAGS=${strict[*]}" -DCMAKE_COMPILE_WARNING_AS_ERROR=ON -DBUILD_SHARED_LIBS=ON \
      -DCMAKE_BUILD_TYPE=Debug -DKELVO_INSTALL=ON
    # A component needs its own targets only: the consumer has built nothing but the shared library.
    cmake --install "$work" --component kelvo --prefix "$work/prefix"
    find "$work/prefix" -name 'libkelvo.so.*' | grep -q .
    [[ -z $(find "$work/prefix" -name '*.h' -o -name '*.a' -o -name '*.cmake') ]]
  fi
  ;;
c)
  cmake -S "$here/c" -B "$work" -G Ninja "-DCMAKE_PREFIX_PATH=$prefix"
  cmake --build "$work"
  with_collector says_hello "$work"/hello-*
  if ldd "$work/hello-c99-kelvo_static" | grep libkelvo; then exit 1; fi
  # Without CMake, and as C++.
  find_with_pkg_config
  for package in kelvo-c kelvo-static; do
    read -ra flags < <(pkg-config --cflags --libs "$package")
    cc "$examples/c/hello.c" -o "$work/hello" "${flags[@]}"
    with_collector says_hello "$work/hello"
  done
  for compiler in c++ clang++; do
    if command -v "$compiler" >/dev/null; then
      "$compiler" -std=c++17 -x c++ -fsyntax-only -Wall -Wextra -Wpedantic -Werror "$prefix/include/kelvo/kelvo.h"
    fi
  done
  ;;
rust)
  needs rustc
  find_with_pkg_config
  mkdir -p "$work"
  read -ra flags < <(pkg-config --libs kelvo-c)
  rustc --edition 2021 -D warnings -o "$work/hello" "$examples/rust/hello.rs" "${flags[@]}"
  with_collector says_hello "$work/hello"
  ;;
go)
  needs go
  find_with_pkg_config
  mkdir -p "$work"
  GOCACHE=$work/cache GOPATH=$work/path GOPROXY=off GOFLAGS=-mod=mod GO111MODULE=off CGO_ENABLED=1 \
    go build -o "$work/hello" "$examples/go/hello.go"
  with_collector says_hello "$work/hello"
  ;;
python)
  python=/usr/bin/python3 checkout=$work/checkout
  "$python" -W ignore -c 'import setuptools, pip, venv, wheel, pytest' || { echo "pip, pytest, setuptools, venv or wheel is not installed"; exit 77; }
  rm -rf "$work" && mkdir -p "$checkout/bindings"
  cp "$here/../../CMakeLists.txt" "$checkout"
  cp -r "$here/../../bindings/python" "$checkout/bindings"
  "$python" -m pip wheel --quiet --no-index --no-deps --no-build-isolation --wheel-dir "$work" "$checkout/bindings/python"
  "$python" -m venv --without-pip "$work/venv"
  "$python" -m pip --quiet --python "$work/venv/bin/python" install --no-index "$work"/kelvo-*.whl
  printf '#!/bin/sh\nexec "%s" -W error "%s"\n' "$work/venv/bin/python" "$examples/python/hello.py" >"$work/hello"
  chmod +x "$work/hello"
  KELVO_LIBRARY=$(find "$prefix" -name libkelvo-c.so.1)
  export KELVO_LIBRARY
  with_collector says_hello "$work/hello"
  # The libraries beside the package, as in a program that ships everything.
  cp -P "$(dirname "$KELVO_LIBRARY")"/libkelvo*.so.* "$(find "$work/venv" -path '*/site-packages/kelvo')"
  unset KELVO_LIBRARY
  with_collector says_hello "$work/hello"
  # A test of a host, with the kit beside the package. The wheel brings its fixture; pytest is the system's.
  echo /usr/lib/python3/dist-packages >"$(find "$work/venv" -name site-packages)/system.pth"
  cat >"$work/test_host.py" <<'END'
import kelvo
def test_host(kelvo_recorder):
    kelvo.log("Purchase")
    assert kelvo_recorder.logged("Purchase")
END
  "$work/venv/bin/python" -m pytest -p no:cacheprovider "$work/test_host.py" | grep '1 passed'
  ;;
perl) PATH=$prefix/bin:$PATH with_collector says_hello "$examples/perl/hello.pl" ;;
quick)
  rm -rf "$work"
  cmake -S "$here/quick" -B "$work" -G Ninja "-DCMAKE_PREFIX_PATH=$prefix"
  cmake --build "$work"
  # Without an import path, and with the one of the installed module, which is for editors and qmllint.
  module=$(dirname "$(dirname "$(find "$prefix" -name kelvo.qmltypes)")")
  export QT_QPA_PLATFORM=offscreen
  with_collector greeted "$work/consumer"
  QML2_IMPORT_PATH=$module with_collector greeted "$work/consumer"
  /usr/lib/qt6/bin/qmllint -I "$module" "$here/quick/Main.qml"
  ;;
pkg-config)
  find_with_pkg_config
  mkdir -p "$work"
  # The README's first program must compile as printed.
  sed -n '/^```cpp$/,/^```$/p' "$here/../../README.md" | sed '1d;/^```$/,$d' >"$work/readme.cpp"
  grep -q 'int main' "$work/readme.cpp"
  for package in kelvo kelvo-static; do
    mkdir -p "$work/$package.bundle"
    cp "$build/consumer/shared/consumer.bundle/Info.plist" "$work/$package.bundle/"
    read -ra flags < <(pkg-config --cflags --libs "$package")
    c++ -std=c++17 "${strict[@]}" "$work/readme.cpp" -o "$work/readme" "${flags[@]}"
    with_collector first_program "$work/readme"
    c++ -std=c++17 "${strict[@]}" "$here/main.cpp" -o "$work/$package" "${flags[@]}"
    with_collector delivered "$work/$package"
  done
  ;;
plugin)
  rm -rf "$work" && mkdir -p "$work/super"
  nag=$(realpath "$here/../../examples/nag")
  cmake -S "$nag" -B "$work" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_DEBUG_POSTFIX=d "-DCMAKE_PREFIX_PATH=$prefix"
  cmake --build "$work" --target shop
  object=$work/shop.bundle/libkelvo-Nag.so
  if nm -DC --defined-only "$object" | grep acme; then exit 1; fi
  if readelf -d "$object" | grep -E 'R(UN)?PATH'; then exit 1; fi
  "$build/tools/kelvo-inspect/kelvo-inspect" --doctor --program "$work/shop" "$work/home" >"$work/findings" || true
  grep -xF "ok  plug-in     Nag is in $object" "$work/findings"
  (
    until grep -q 'initialized!' "$work/errors"; do sleep 0.1; done
    for _ in 1 2 3; do echo book && sleep 1; done
  ) | KELVO_HOME=$work/home KELVO_SERVER_BASE_URL=http://127.0.0.1:1 "$work/shop" 2>"$work/errors" | grep 'Will you rate it'
  cat >"$work/super/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(Super LANGUAGES CXX)
add_subdirectory("$(realpath "$here/../..")" kelvo)
add_subdirectory("$nag" nag)
END
  cmake -S "$work/super" -B "$work/super/build" -G Ninja
  grep "<key>Nag</key><true/>" "$work/super/build/nag/shop.bundle/Info.plist"
  ;;
kit)
  cmake -S "$here/kit" -B "$work" -G Ninja "-DCMAKE_PREFIX_PATH=$prefix" "-DCMAKE_CXX_FLAGS=${strict[*]}"
  cmake --build "$work"
  ctest --test-dir "$work" --output-on-failure
  if ldd "$work/without_framework" | grep -E 'libkelvo|libcurl'; then exit 1; fi
  # A program with two builds of the library is refused.
  if cmake "$work" -DKELVO_ALSO=Kelvo::kelvo 2>/dev/null; then exit 1; fi
  cmake "$work" -DKELVO_ALSO=
  ;;
c-kit)
  cmake -S "$here/c-kit" -B "$work" -G Ninja "-DCMAKE_PREFIX_PATH=$prefix" -DKELVO_ALSO=
  cmake --build "$work"
  ctest --test-dir "$work" --output-on-failure
  library=$(ldd "$work/checkout_test" | grep -o '/.*/libkelvo-c-testing\.so\.1')
  if ldd "$work/checkout_test" | grep -E 'libkelvo(-c)?\.so|libcurl'; then exit 1; fi
  # It exports what its headers declare.
  diff <(nm -D --defined-only "$library" | sed -n 's/.* \(kelvo_.*\)@@KELVO_C_1$/\1/p') \
    <(sed -n 's/^KELVO_EXPORT_C .*[ *]\(kelvo_[a-z0-9_]*\)(.*/\1/p' "$prefix"/include/kelvo/kelvo{,-testing}.h | sort)
  if cmake "$work" -DKELVO_ALSO=Kelvo::c 2>/dev/null; then exit 1; fi
  # Without CMake.
  find_with_pkg_config
  read -ra flags < <(pkg-config --cflags --libs kelvo-c-testing)
  cc "$here"/c-kit/*.c -o "$work/test" "${flags[@]}"
  "$work/test"
  ;;
qt-kit)
  cmake -S "$here/qt-kit" -B "$work" -G Ninja "-DCMAKE_PREFIX_PATH=$prefix" "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Werror"
  cmake --build "$work"
  QT_QPA_PLATFORM=offscreen ctest --test-dir "$work" --output-on-failure
  # The adapter of the program's own build does not fit.
  if cmake "$work" -DKELVO_ALSO=Kelvo::qt 2>/dev/null; then exit 1; fi
  cmake "$work" -DKELVO_ALSO=
  ;;
demo) "$here/../../scripts/demo" | tee /dev/stderr | grep '2 chunks accepted, 1 of them after a refusal' >/dev/null ;;
deb)
  ((EUID == 0)) || { echo "only root may install a package"; exit 77; }
  rm -rf "$work" && mkdir -p "$work/root/var/lib/dpkg"/{info,updates} && touch "$work/root/var/lib/dpkg/status"
  (cd "$build" && cpack -G DEB -B "$work/package" >"$work/cpack.log") || { cat "$work/cpack.log"; exit 1; }
  dpkg=(dpkg "--root=$work/root" --force-depends --force-script-chrootless --log=/dev/null)
  "${dpkg[@]}" -i "$work"/package/*.deb
  for program in kelvo-log kelvo-server; do "$work/root/usr/bin/$program" --help >/dev/null; done
  export -f stores_an_event
  export work
  "$here/../../scripts/postgres" exec --fast bash -euo pipefail -c 'stores_an_event "$work/root/usr/bin"'
  # The project names no mail host and no licence yet. kelvo-dev is left out, because its archive takes over a minute.
  lintian --no-cfg --fail-on error --suppress-tags bogus-mail-host,bogus-mail-host-in-debian-changelog,no-copyright-file \
    "$work"/package/kelvo_*.deb "$work"/package/kelvo-[cqst]*.deb \
    "$work"/package/python3-kelvo_*.deb
  # The package that each of these files is in.
  while read -r package file; do
    "${dpkg[@]}" -L "$package" | grep -qx "$file" || { echo "$package lacks $file"; exit 1; }
  done <<'FILES'
kelvo .*/libkelvo\.so\.288
kelvo-c .*/libkelvo-c\.so\.1
python3-kelvo /usr/lib/python3/dist-packages/kelvo/__init__\.py
kelvo-dev .*/libkelvo-c\.so
kelvo-dev .*/kelvo/kelvo\.h
kelvo-dev .*/libkelvo\.so
kelvo-dev .*/kelvo/KelvoSDK\.h
kelvo-dev .*/libkelvo\.a
kelvo-dev .*/libkelvo-testing\.a
kelvo-dev .*/libkelvo-c-testing\.so\.1
python3-kelvo .*/pytest_kelvo\.py
python3-kelvo .*/kelvo-[0-9.]*\.egg-info/entry_points\.txt
kelvo-dev .*/pkgconfig/kelvo\.pc
kelvo-tools /usr/bin/kelvo-inspect
kelvo-tools /usr/bin/kelvo-events
kelvo-tools /usr/share/man/man1/kelvo-collector\.1\.gz
kelvo-tools /usr/share/doc/kelvo-tools/changelog\.gz
kelvo-server /usr/lib/systemd/system/kelvo-server@\.service
kelvo-server /usr/share/man/man1/kelvo-server\.1\.gz
kelvo-server /usr/share/doc/kelvo-server/docs/service-api\.md
FILES
  names=$("${dpkg[@]}" --get-selections | awk '{print $1}')
  for package in $names; do
    case $package in kelvo) needs=libcurl4 ;; kelvo-c) needs='kelvo (=' ;; python3-kelvo) needs='kelvo-c (=' ;; kelvo-dev) needs='kelvo (=' ;; kelvo-qt) needs='kelvo-dev (=' ;;
      kelvo-server) needs=libpq5 ;; *) needs=libssl3 ;; esac
    dpkg-deb -f "$work/package/${package}_"*.deb Depends | grep -F "$needs"
  done
  # shellcheck disable=SC2086  # one word for each package
  "${dpkg[@]}" --purge $names
  [ ! -e "$work/root/usr" ] || { find "$work/root/usr"; exit 1; }
  ;;
esac
