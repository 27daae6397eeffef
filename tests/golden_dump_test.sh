#!/bin/bash
# Compares the output of vestra-dump info for kept dumps with the file next to each: golden_dump_test.sh [--write] COMMAND...
# COMMAND starts vestra-dump. The daemon wrote clean and lite on 64 bits, written-on-arm on 32; the others are clean with the
# damage that their names say.
write=
[ "$1" = --write ] && { write=yes; shift; }
cd "$(dirname "$0")/data/dumps" || exit 1
failures=0
for dump in *.dump refused/*.dump; do
    output=$(TZ=UTC "$@" info "$dump" 2>&1; echo "exit code $?")
    if [ -n "$write" ]; then
        echo "$output" > "${dump%.dump}.info"
    elif diff <(echo "$output") "${dump%.dump}.info"; then
        echo "ok      $dump"
    else
        echo "FAILED  $dump"
        failures=$((failures + 1))
    fi
done
[ $failures -eq 0 ]
