#!/usr/bin/env bash
# dependencies.sh: runs scripts/install-dependencies on pretended machines, with an apt-get, dpkg-query and sudo that only
# record their calls. Checks who installs what, what goes into build/deps, and that no package may ever be removed.
set -euo pipefail
script=$(realpath "$(dirname "$0")/../../scripts/install-dependencies")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/bin" "$work/sudoers" "$work/deb/DEBIAN" "$work/deb/usr/lib" "$work/deb/usr/include"

# Every package downloads as this one, which has a link to a library that only the system has.
printf 'Package: fake\nVersion: 1\nArchitecture: all\nMaintainer: none <none@localhost>\nDescription: none\n' >"$work/deb/DEBIAN/control"
touch "$work/deb/usr/include/fake.h"
library=$(basename "$(find -L /usr/lib -maxdepth 1 -type f | head -1)")
ln -s "$library" "$work/deb/usr/lib/libfake.so"
dpkg-deb -b "$work/deb" "$work/fake.deb" >/dev/null

cat >"$work/bin/apt-get" <<'FAKE'
#!/usr/bin/env bash
echo "apt-get $*" >>"$LOG"
case " $* " in
  *" -s "*) [[ " $* " != *" --no-remove "*"$CONFLICT "* ]] || exit 100
            for word; do case $word in lib* | ninja-build) echo "Inst $word (1 Debian [amd64])" ;; esac; done
            echo "Remv libboost1.74-dev [1.74]" ;;
  *" download "*) for word; do case $word in lib* | ninja-build) cp "$FAKE_DEB" "$word.deb" ;; esac; done ;;
  *" install "*) [[ -z ${BROKEN:-} ]] || { echo "Setting up"; echo "E: Broken disk" >&2; exit 100; } ;;
esac
FAKE
printf '#!/bin/sh\nexit 1\n' >"$work/bin/dpkg-query"
printf '#!/bin/sh\necho "sudo $*" >>"$LOG"\n[ "$SUDO" = works ] || exit 1\n[ "$1" = -n ] || exec "$@"\n' >"$work/sudoers/sudo"
chmod +x "$work"/bin/* "$work/sudoers/sudo"
# The programs that the script and the pretended ones use; the machine lacks all others.
for program in bash sh env awk basename cat cp dirname dpkg-deb find grep id ln mkdir mktemp readlink rm tar; do
  ln -s "$(command -v "$program")" "$work/bin/$program"
done
touch "$work/bin/c++" "$work/bin/cmake" && chmod +x "$work/bin/c++" "$work/bin/cmake"
chmod -R a+rX "$work"

# try NAME USER SUDO CONFLICT: runs the script for the demo as USER. Its checkout is $tree, its messages are in $tree/said.
try() {
  tree=$work/$1
  mkdir -p "$tree/scripts"
  cp "$script" "$tree/scripts/"
  local as=(env) path=$work/bin
  if [[ $2 == dev && $EUID == 0 ]]; then
    chown 65534 "$tree" && chmod a+x "$work"
    as=(setpriv --reuid=65534 --clear-groups env)
  fi
  [[ $3 == none ]] || path+=:$work/sudoers
  status=0
  "$(command -v "${as[0]}")" "${as[@]:1}" "PATH=$path" "SUDO=$3" "CONFLICT=$4" "LOG=$tree/log" "FAKE_DEB=$work/fake.deb" \
    "BROKEN=${BROKEN:-}" "$(command -v bash)" "$tree/scripts/install-dependencies" demo </dev/null >"$tree/said" 2>&1 ||
    status=$?
}
fail() { echo "$tree: $*"; cat "$tree/said" "$tree/log"; exit 1; }
installs() { grep '^apt-get install' "$tree/log" | grep -v ' -s '; }

try sudo dev works none
((status == 0)) && installs | grep -q libboost1.81-dev && [[ ! -e $tree/build ]] || fail "sudo installs everything"
grep -q 'apt-get installs: .*libboost1.81-dev' "$tree/said" || fail "it says what it installs"

try conflict dev works libboost1.81-dev
((status == 0)) && installs | grep -q libfmt-dev && ! installs | grep -q libboost || fail "what would remove a package is not installed"
[[ $(cat "$tree/build/deps/packages") == libboost1.81-dev && -e $tree/build/deps/usr/include/fake.h ]] ||
  fail "what would remove a package is unpacked"
[[ -e $tree/build/deps/usr/lib/libfake.so ]] || fail "links lead to the system's libraries"

for sudo in none refuses; do
  try "alone-$sudo" dev "$sudo" none
  ((status == 0)) && ! installs && grep -qx libboost1.81-dev "$tree/build/deps/packages" || fail "without sudo, all is unpacked"
  : >"$tree/log"
  try "alone-$sudo" dev "$sudo" none
  [[ ! -s $tree/said ]] && ! grep -q apt-get "$tree/log" || fail "a second run has nothing to do"
done

BROKEN=1 try broken dev works none
((status != 0)) && grep -q 'E: Broken disk' "$tree/said" && grep -q 'Setting up' "$tree/said" || fail "apt's errors are shown"

for log in "$work"/*/log; do
  ! grep 'apt-get install' "$log" | grep -v -e ' -s ' -e '--no-remove' || { echo "an installation may remove packages"; exit 1; }
done
