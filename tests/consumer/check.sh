#!/usr/bin/env bash
# check.sh WAY BUILD: tests one WAY to get the library.
#   install                               installs the library of BUILD, for the ways that need it
#   shared, static, checkout, pkg-config  builds a consumer, which must start from its bundle and deliver its event
#   deb                                   installs the Debian package, checks its files and removes it
set -euo pipefail
way=$1 build=$2
here=$(cd "$(dirname "$0")" && pwd)
prefix=$build/consumer/prefix work=$build/consumer/$way

# delivered PROGRAM: runs it, delivers its stored events with kelvo-log, and checks that its event arrived.
delivered() (
  export KELVO_HOME=$work/home
  rm -rf "$KELVO_HOME"
  coproc COLLECTOR { exec "$build/tools/kelvo-collector/kelvo-collector" --port 0; }
  trap 'kill "$COLLECTOR_PID"' EXIT
  local line
  read -r -t 20 line <&"${COLLECTOR[0]}"
  KELVO_SERVER_BASE_URL=$(grep -o 'http://[0-9.:]*' <<<"$line")
  export KELVO_SERVER_BASE_URL
  "$1"
  KELVO_BUNDLE=$1.bundle "$build/tools/kelvo-log/kelvo-log" </dev/null
  curl -fsS "$KELVO_SERVER_BASE_URL/debug/requests" | python3 "$here/expect.py"
)

# names_delivery RULES: checks the rules of delivery in the consumer's bundle.
names_delivery() { grep -q "<key>KelvoDelivery</key><string>$1</string>" "$work/consumer.bundle/Info.plist"; }

configured() {
  cmake -S "$here" -B "$work" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
  cmake --build "$work"
  names_delivery complete
  delivered "$work/consumer"
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
  cmake "$work" -DCONSUMER_DELIVERY= # the next run begins as this one did
  ;;
static)
  configured "-DCMAKE_PREFIX_PATH=$prefix" -DKELVO_TARGET=Kelvo::kelvo_static
  ! ldd "$work/consumer" | grep libkelvo
  ;;
checkout) configured "-DKELVO_CHECKOUT=$(realpath "$here/../..")" ;;
pkg-config)
  PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name kelvo.pc)")
  export PKG_CONFIG_PATH LD_LIBRARY_PATH=$prefix/lib:$prefix/lib/$(gcc -print-multiarch)
  mkdir -p "$work"
  # The README's first program must compile as printed.
  sed -n '/^```cpp$/,/^```$/p' "$here/../../README.md" | sed '1d;/^```$/,$d' >"$work/readme.cpp"
  grep -q 'int main' "$work/readme.cpp"
  for package in kelvo kelvo-static; do
    mkdir -p "$work/$package.bundle"
    cp "$build/consumer/shared/consumer.bundle/Info.plist" "$work/$package.bundle/"
    read -ra flags < <(pkg-config --cflags --libs "$package")
    c++ -std=c++17 -Wall -Wextra -Werror "$work/readme.cpp" -o "$work/readme" "${flags[@]}"
    c++ -std=c++17 "$here/main.cpp" -o "$work/$package" "${flags[@]}"
    delivered "$work/$package"
  done
  ;;
deb)
  ((EUID == 0)) || { echo "only root may install a package"; exit 77; }
  rm -rf "$work" && mkdir -p "$work/root/var/lib/dpkg"/{info,updates} && touch "$work/root/var/lib/dpkg/status"
  (cd "$build" && cpack -G DEB -B "$work/package" >"$work/cpack.log") || { cat "$work/cpack.log"; exit 1; }
  dpkg=(dpkg "--root=$work/root" --force-depends --force-script-chrootless --log=/dev/null)
  "${dpkg[@]}" -i "$work"/package/*.deb
  "$work/root/usr/bin/kelvo-log" --help >/dev/null
  find "$work/root/usr" -name 'libkelvo.so.*' | grep -q .
  "${dpkg[@]}" --purge kelvo
  [ ! -e "$work/root/usr" ] || { find "$work/root/usr"; exit 1; }
  ;;
esac
