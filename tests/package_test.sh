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
for library in libc6 libstdc++6 libglib2.0-0 libsqlite3-0 libtinyxml2-9; do
    dpkg-deb -f "$deb" Depends | grep -qF "$library" || fail "does not depend on $library"
done
if dpkg-deb -c "$deb" | awk '$2 != "root/root" || substr($1, 6, 1) == "w" || substr($1, 9, 1) == "w"' | grep .; then
    fail "these are not root's alone"
fi

mkdir -p "$root"/var/lib/dpkg/{info,updates}
: >"$root/var/lib/dpkg/status"
package --install "$deb"
[ "$(state)" = "ii " ] || fail "installed, the state is '$(state)'"
for file in bin/vestrad bin/vestra-set bin/vestra-stat bin/vestra-dump share/man/man8/vestrad.8 share/man/man1/vestra-set.1 \
        share/bash-completion/completions/vestra-dump share/zsh/vendor-completions/_vestra \
        share/fish/vendor_completions.d/vestra-stat.fish; do
    [ -e "$root/usr/$file" ] || [ -e "$root/usr/$file.gz" ] || fail "/usr/$file is not there"
done
[ "$(find "$root" -name vestrad.service | wc -l)" = 1 ] || fail "not one unit"
exec_start=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$(find "$root" -name vestrad.service)")
[ -x "$root$exec_start" ] || fail "the unit starts $exec_start, which is not in the package"
"$root/usr/bin/vestra-dump" info "$dump" >/dev/null || fail "the installed vestra-dump does not read a dump"
"$root/usr/bin/vestra-set" sandbox -- true || fail "the installed vestra-set does not make a set"

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
