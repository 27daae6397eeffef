#!/usr/bin/env bash
# The Debian packages that scripts/package made: looked at, installed into an empty root, upgraded with a changed configuration, removed
# and purged. What needs a running machine is in debian/tests: package_test.sh DIRECTORY_OF_PACKAGES GOLDEN_DUMP
set -euo pipefail
debs=$(realpath "$1") dump=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
fail() { echo "FAILED: $*" >&2; exit 1; }
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
packages=(libvestra-api1 vestrad vestra-tools vestra-set libvestra-api-dev python3-vestra)
deb() { echo "$debs/$1"_*.deb; }
files=()
for package in "${packages[@]}" vestra-dkms; do
    [ "$(dpkg-deb -f "$(deb "$package")" Package)" = "$package" ] || fail "no package $package in $debs"
    files+=("$(deb "$package")")
done
field() { dpkg-deb -f "$(deb "$1")" "$2"; }

lintian --allow-root --fail-on error,warning,info "$debs"/*.changes >"$work/lintian" 2>&1 || { cat "$work/lintian"; fail "lintian complains"; }

for library in libvestra-api1 libc6 libstdc++6 libglib2.0-0 libsqlite3-0 libtinyxml2-9 libudev1 libmount1 libevdev2; do
    [[ "$(field vestrad Depends)" == *"$library"* ]] || fail "vestrad does not depend on $library"
done
for package in vestra-tools libvestra-api1; do
    [[ ! "$(field "$package" Depends)" =~ vestrad|fuse|bubblewrap ]] || fail "$package needs a daemon or a simulated set"
done
for file in "${files[@]}"; do
    if dpkg-deb -c "$file" | awk '$2 != "root/root" || ($1 !~ /^l/ && $1 ~ /^.....w|^........w/)' | grep .; then
        fail "these are not root's alone"
    fi
done
source=$(dpkg-deb -c "$(deb vestra-dkms)" | awk '{print $6}')
for file in dkms.conf Makefile $(cd "$(dirname "$0")/../kmod" && ls ./*.[ch]); do
    grep -q "^./usr/src/orna_vestra_kmod-[^/]*/$(basename "$file")$" <<<"$source" || fail "vestra-dkms has no $file"
done

# Nothing of this machine's own package database is read or written; what the packages depend on is not in the root, and programs that
# work on a whole machine have stand-ins.
mkdir -p "$root"/var/lib/dpkg/{info,updates} "$work/stand-ins"
: >"$root/var/lib/dpkg/status"
for program in systemd-sysusers py3compile py3clean; do ln -s /bin/true "$work/stand-ins/$program"; done
dpkg_root() { PATH=$work/stand-ins:$PATH dpkg --root="$root" --log=/dev/null --force-depends --force-not-root --force-script-chrootless \
    "$@" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg $*"; }; }
states() { dpkg-query --root="$root" -W -f='${db:Status-Abbrev}\n' | sort -u; }
installed=("${files[@]:0:${#packages[@]}}")
dpkg_root --install "${installed[@]}"
[ "$(states)" = "ii " ] || fail "installed, the states are '$(states)'"
for file in bin/vestrad bin/vestra-set bin/vestra-stat bin/vestra-dump bin/vestra-key share/man/man8/vestrad.8.gz \
        share/man/man1/{vestra-set,vestra-key,vestra-stat,vestra-dump}.1.gz share/man/man3/vestra_api.3.gz \
        "lib/$multiarch/libvestra-platform.so.1" "lib/$multiarch/vestra-set/libvestra-platform.so.1" \
        share/bash-completion/completions/vestra-dump share/zsh/vendor-completions/_vestra-key \
        share/fish/vendor_completions.d/vestra-stat.fish lib/python3/dist-packages/vestra.py lib/sysusers.d/vestrad.conf; do
    [ -e "$root/usr/$file" ] || fail "/usr/$file is not there"
done
grep -q $'^Build=.*\r$' "$root/etc/prd_info.ini" || fail "no build text, so every dump would fail"
unit=$root/lib/systemd/system/vestrad.service
exec_start=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$unit")
[ -x "$root$exec_start" ] || fail "the unit starts $exec_start, which is not in the package"
[ -L "$root/etc/systemd/system/multi-user.target.wants/vestrad.service" ] || fail "the unit does not start at boot"
"$root/usr/bin/vestra-dump" info "$dump" >/dev/null || fail "the installed vestra-dump does not read a dump"
"$root/usr/bin/vestra-set" sandbox -- true || fail "the installed vestra-set does not make a set"

# The library: the example needs no more than pkg-config or CMake, and what it links with is answered by the installed daemon, as Python is.
# -B: with py3clean as a stand-in, nobody would take compiled Python away.
library=$root/usr/lib/$multiarch
export PKG_CONFIG_LIBDIR=$library/pkgconfig LD_LIBRARY_PATH=$library PYTHONPATH=$root/usr/lib/python3/dist-packages
example=$root/usr/share/doc/libvestra-api-dev/examples/ask.c
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
    python3 -B -c "import vestra; assert vestra.ask(2, 10)[\"cpu_total\"].maximum > 0"
' "$root" "$work" || fail "the installed daemon does not answer what was linked with the installed library"
unset PKG_CONFIG_LIBDIR LD_LIBRARY_PATH PYTHONPATH

config=$root/opt/data/vestraDir/orna_vestra_config.xml
sed -i 's|<max_file_size>[0-9]*<|<max_file_size>3<|' "$config"
printf 'Model=SET-1\r\nBuild=1000.1\r\n' >"$root/etc/prd_info.ini"
kept() { sha256sum "$config" "$root/etc/prd_info.ini"; }
changed=$(kept)
dpkg_root --install "${installed[@]}"
[ "$(kept)" = "$changed" ] || fail "a second installation undid a change of the configuration"
dpkg_root --remove "${packages[@]}"
[ "$(kept)" = "$changed" ] || fail "removal took the changed configuration away"
[ ! -e "$root/usr/bin/vestrad" ] || fail "removal left the daemon"
mkdir -p "$root/var/lib/vestrad/keys" "$root/opt/usr/home/owner/share"
touch "$root/var/lib/vestrad/keys/a-key" "$root/opt/usr/home/owner/share/tvhistory.db"  # what the daemon leaves
dpkg_root --purge "${packages[@]}"
[ "$(cat "$root/etc/prd_info.ini")" = $'Model=SET-1\r\nBuild=1000.1\r' ] || fail "purging took the set's own file away"
rm "$root/etc/prd_info.ini"
left=$(find "$root" -path "$root/var/lib/dpkg" -prune -o ! -type d -print; [ ! -e "$root/opt" ] || find "$root/opt" -mindepth 1)
[ -z "$left" ] || fail "purged, these are left: $left"
echo "ok: installed, upgraded, removed and purged"
