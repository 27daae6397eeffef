#!/usr/bin/env bash
# The Debian package, made, installed into an empty root, upgraded with a changed configuration, removed and purged:
# package_test.sh BUILD_DIR GOLDEN_DUMP
set -euo pipefail
build=$1 dump=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
fail() { echo "FAILED: $*" >&2; exit 1; }
# Nothing of this machine's own package database is read or written; what the package depends on is not in the root.
package() { dpkg --root="$root" --log=/dev/null --force-depends --force-not-root --force-script-chrootless "$@" >"$work/dpkg.log" 2>&1 ||
    { cat "$work/dpkg.log"; fail "dpkg $*"; }; }
state() { dpkg-query --root="$root" -W -f='${db:Status-Abbrev}' vestrad 2>/dev/null || echo none; }

(cd "$build" && cpack -G DEB -B "$work/made" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; fail "cpack"; }
deb=$(echo "$work"/made/vestrad_*.deb)
[ "$(dpkg-deb -f "$deb" Package)" = vestrad ] || fail "no package in $work/made"
for library in libc6 libstdc++6 libglib2.0-0 libsqlite3-0 libtinyxml2-9 libzstd1 libncursesw6 libudev1 libmount1 libevdev2; do
    dpkg-deb -f "$deb" Depends | grep -qF "$library" || fail "does not depend on $library"
done
if dpkg-deb -c "$deb" | awk '$2 != "root/root" || ($1 !~ /^l/ && $1 ~ /^.....w|^........w/)' | grep .; then
    fail "these are not root's alone"
fi

mkdir -p "$root"/var/lib/dpkg/{info,updates}
: >"$root/var/lib/dpkg/status"
package --install "$deb"
[ "$(state)" = "ii " ] || fail "installed, the state is '$(state)'"
for file in bin/vestrad bin/vestra-set bin/vestra-stat bin/vestra-dump bin/vestra-key share/man/man8/vestrad.8 \
        share/man/man1/vestra-set.1 share/man/man1/vestra-key.1 lib/libvestra-platform.so.1 lib/vestra-set/libvestra-platform.so.1 \
        share/bash-completion/completions/vestra-dump share/zsh/vendor-completions/_vestra \
        share/fish/vendor_completions.d/vestra-stat.fish share/man/man3/vestra_api.3 lib/python3/dist-packages/vestra.py; do
    [ -e "$root/usr/$file" ] || [ -e "$root/usr/$file.gz" ] || fail "/usr/$file is not there"
done
[ "$(find "$root" -name vestrad.service | wc -l)" = 1 ] || fail "not one unit"
exec_start=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$(find "$root" -name vestrad.service)")
[ -x "$root$exec_start" ] || fail "the unit starts $exec_start, which is not in the package"
"$root/usr/bin/vestra-dump" info "$dump" >/dev/null || fail "the installed vestra-dump does not read a dump"
"$root/usr/bin/vestra-set" sandbox -- true || fail "the installed vestra-set does not make a set"

# The library: it promises what its version script says, the example needs no more than pkg-config, and what it links with is
# answered by the installed daemon, as Python is.
library=$(echo "$root"/usr/lib/libvestra-api.so.1)
promised='check_if_valid_shm get_shm vestra_api_ask vestra_api_close vestra_api_open vestra_api_result_text
    vestra_ready_sem_unlock_func vestra_request_sem_lock_func'
exported=$(nm -D --defined-only "$library" | awk '$2 != "A" {sub("@.*", "", $3); print $3}' | sort)
[ "$(echo $exported)" = "$(echo $promised)" ] || fail "the library exports" $exported
export PKG_CONFIG_LIBDIR=$root/usr/lib/pkgconfig LD_LIBRARY_PATH=$root/usr/lib PYTHONPATH=$root/usr/lib/python3/dist-packages
example=$root/usr/share/doc/vestrad/examples/ask.c
flags=$(pkg-config --cflags --libs vestra-api)
gcc -std=c99 -pedantic -Wall -Wextra -Werror "$example" $flags -o "$work/ask" || fail "the example is no C99"
g++ -std=c++17 -pedantic -Wall -Wextra -Werror -x c++ "$example" $flags -o "$work/ask-c++" || fail "the example is no C++17"
mkdir "$work/cmake"
cat >"$work/cmake/CMakeLists.txt" <<EOF
cmake_minimum_required(VERSION 3.25)
project(ask C)
find_package(vestra-api 1.0 REQUIRED)
add_executable(ask $example)
target_link_libraries(ask vestra::api)
EOF
{ cmake -S "$work/cmake" -B "$work/cmake/build" -DCMAKE_PREFIX_PATH="$root/usr" && cmake --build "$work/cmake/build"; } \
    >"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; fail "CMake does not find the library"; }
"$root/usr/bin/vestra-set" sandbox --node --source synthetic --bind "$work" -- bash -ec '
    "$0/usr/bin/vestrad" >/dev/null 2>&1 &
    trap "kill -KILL $!" EXIT
    for _ in {1..300}; do ! "$1/ask" 2>&1 | grep -q "^CPU: [0-9]" || break; sleep 0.1; done
    "$1/ask" | grep -q "^CPU: [0-9]"
    "$1/cmake/build/ask" | grep -q "^memory available: [0-9]"
    python3 -c "import vestra; assert vestra.ask(2, 10)[\"cpu_total\"].maximum > 0"
' "$root" "$work" || fail "the installed daemon does not answer what was linked with the installed library"
unset PKG_CONFIG_LIBDIR LD_LIBRARY_PATH PYTHONPATH

config=$root/opt/data/vestraDir/orna_vestra_config.xml
sed -i 's|<max_file_size>[0-9]*<|<max_file_size>3<|' "$config"
changed=$(sha256sum <"$config")
package --install "$deb"
[ "$(sha256sum <"$config")" = "$changed" ] || fail "a second installation undid a change of the configuration"
package --remove vestrad
[ "$(sha256sum <"$config")" = "$changed" ] || fail "removal took the changed configuration away"
[ ! -e "$root/usr/bin/vestrad" ] || fail "removal left the daemon"
package --purge vestrad
left=$(find "$root" -path "$root/var/lib/dpkg" -prune -o ! -type d -print)
[ -z "$left" ] || fail "purged, these are left: $left"
echo "ok: installed, upgraded, removed and purged"
