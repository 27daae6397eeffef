#!/bin/bash
# What vestra-dump says of dumps that are kept, each in a file beside it: golden_dump_test.sh [--write] COMMAND...
# COMMAND starts vestra-dump. clean and lite were written by the daemon on 64 bits, written-on-arm on 32; the others are clean with
# the damage that their names tell.
write=
[ "$1" = --write ] && { write=yes; shift; }
cd "$(dirname "$0")/data/dumps" || exit 1
failures=0
for dump in *.dump refused/*.dump; do
    said=$(TZ=UTC "$@" info "$dump" 2>&1; echo "exit code $?")
    if [ -n "$write" ]; then
        echo "$said" > "${dump%.dump}.info"
    elif diff <(echo "$said") "${dump%.dump}.info"; then
        echo "ok      $dump"
    else
        echo "FAILED  $dump"
        failures=$((failures + 1))
    fi
done
[ $failures -eq 0 ]
