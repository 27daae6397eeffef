#!/usr/bin/env bash
# The packages of 32-bit ARM that "scripts/package --armhf" made, next to this machine's own. Their programs run under user emulation:
# package_armhf_test.sh DIRECTORY_OF_ARM_PACKAGES DIRECTORY_OF_OWN_PACKAGES GOLDEN_DUMP
set -euo pipefail
arm=$(realpath "$1") own=$(realpath "$2") dump=$(realpath "$3")
here=$(dirname "$(realpath "$0")")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

lintian --allow-root --fail-on error,warning,info "$arm"/*.changes >"$work/lintian" 2>&1 || { cat "$work/lintian"; fail "lintian complains"; }

packages() { for file in "$1"/*_"$2".deb; do dpkg-deb -f "$file" Package; done; }
names() { dpkg-deb -f "$1" Depends | tr , '\n' | sed 's/^ *//; s/ .*//' | sort; }
host=$(dpkg --print-architecture)
[ "$(packages "$arm" armhf)" = "$(packages "$own" "$host")" ] || fail "other packages than this machine's: $(packages "$arm" armhf)"
for package in $(packages "$arm" armhf); do
    file=$(echo "$arm/${package}"_*_armhf.deb)
    diff <(names "$own/${package}"_*_"$host".deb) <(names "$file") >&2 || fail "$package depends on other packages than on this machine"
    dpkg-deb -x "$file" "$work/tree"
done

programs=0
while read -r file; do
    [ "$(head -c 4 "$file" | tail -c 3)" = ELF ] || continue
    readelf -h "$file" | grep -q 'Version5 EABI, hard-float' || fail "$file is not for armhf: $(readelf -h "$file" | grep Flags)"
    programs=$((programs + 1))
done < <(find "$work/tree/usr/bin" "$work/tree/usr/lib" -type f -not -path '*/debug/*')
[ $programs -ge 7 ] || fail "only $programs programs and libraries"

"$here/../scripts/arm-sysroot" "$here/../build/arm-sysroot"
run() { qemu-arm -L "$here/../build/arm-sysroot" "$work/tree/usr/bin/$1" "${@:2}"; }
mkdir "$work/own"
dpkg-deb -x "$own"/vestra-tools_*_"$host".deb "$work/own"
for command in info 'csv --processes' json; do
    # shellcheck disable=SC2086
    cmp <(run vestra-dump $command "$dump") <("$work/own/usr/bin/vestra-dump" $command "$dump") || fail "vestra-dump $command differs on ARM"
done
echo "ok: $(packages "$arm" armhf | wc -l) packages, $programs programs and libraries"
