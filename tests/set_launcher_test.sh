#!/bin/bash
# The launcher and remote control as a user has them: set_launcher_test.sh PATH-OF-vestra-set. A shell script stands in for the
# daemon. Needs the right to make sets; sets run under names of this test's own.
set -u

set_program=$1
work=$(mktemp -d)
export XDG_RUNTIME_DIR=$work/runtime
mkdir -p "$XDG_RUNTIME_DIR" "$work/stick"
name=launcher-test
failures=0
trap 'kill $(jobs -p) 2>/dev/null; wait 2>/dev/null; rm -rf "$work"' EXIT

# check WHAT WANTED GOT
check() {
    if [ "$2" = "$3" ]; then
        echo "ok      $1"
    else
        echo "FAILED  $1: wanted \"$2\", got \"$3\""
        failures=$((failures + 1))
    fi
}
# has WHAT PART TEXT
has() {
    case $3 in
        *"$2"*) echo "ok      $1" ;;
        *) check "$1" "...$2..." "$3" ;;
    esac
}
sandbox() { "$set_program" sandbox "$@"; }
remote() { local command=$1; shift; "$set_program" "$command" --name $name "$@"; }

cat > "$work/daemon" <<'END'
#!/bin/bash
trap 'echo asked to stop; [ "$1" = stubborn ] || exit 0' RTMIN+6
[ "$1" = crash ] && kill -SEGV $$
echo "arguments: $*"
echo "logged" >> "$VESTRA_DLOG_FILE"
while true; do sleep 0.05; done
END
chmod +x "$work/daemon"
cd "$work" || exit 1

# --- sandbox
sandbox -- sh -c 'exit 7'; check "a program's exit code is passed on" 7 $?
(sandbox -- sh -c 'kill -KILL $$') 2>/dev/null; check "the signal that ends it is passed on" 137 $?
sandbox -- "$work/missing" 2>/dev/null; check "a missing program is told by 127" 127 $?
sandbox 2>/dev/null; check "no program is a wrong use" 64 $?
check "its arguments arrive as they are" "a b|--|-x|" "$(sandbox -- printf '%s|' 'a b' -- -x)"
check "standard input arrives" "text" "$(echo text | sandbox -- cat)"
check "the working directory is kept, and writable" "$work" "$(sandbox -- sh -c 'pwd; : > made')"
check "what is written there is seen outside" yes "$([ -e made ] && echo yes)"
outside=$(mktemp /tmp/vestra-outside.XXXXXX)
check "/tmp is the set's own" no "$(sandbox -- sh -c "[ -e $outside ] || echo no")"
rm -f "$outside"
check "an image has its marker and no other" "/etc/release" "$(sandbox --image release -- sh -c 'ls /etc/debug /etc/release /etc/perf 2>/dev/null')"
check "the markers can be removed" gone "$(sandbox -- sh -c 'rm /etc/debug /etc/prd_info.ini && [ ! -e /etc/debug ] && echo gone')"
check "/proc/self works" sh "$(sandbox -- sh -c 'cat /proc/$$/comm')"
check "/proc/uptime is a regular file" "regular empty file" "$(sandbox -- stat -c %F /proc/uptime)"
check "the real /etc is read through its links" "$(getent passwd root)" "$(sandbox -- getent passwd root)"
check "without --node there is no control node" no "$(sandbox -- sh -c '[ -e /proc/vesertra_info ] || echo no')"
check "with --node there is one" yes "$(sandbox --node -- sh -c '[ -e /proc/vesertra_info ] && echo yes')"
check "process ids have their links as they are used up" ok \
    "$(sandbox -- bash -c 'for i in {1..1500}; do (:); done; sleep 1.2; (:) & kill -0 $! ; [ -L /proc/$(($! + 4000)) ] && echo ok')"
sandbox --usb-dir bad=/missing -- true 2>/dev/null; check "a missing stick directory is a wrong use" 64 $?
has "a misspelt configuration key is told" "max_file_size (10)" "$(sandbox --config max_file_siz=1 -- true 2>&1)"
has "sets do not nest" "do not nest" "$(sandbox --bind "$(dirname "$set_program")" -- "$set_program" sandbox -- true 2>&1)"
mkdir "$work/bin" && printf '#!/bin/sh\necho "no namespaces for you" >&2; exit 1\n' > "$work/bin/bwrap" && chmod +x "$work/bin/bwrap"
PATH=$work/bin:$PATH sandbox -- true 2>"$work/errors"; check "no namespace: exit code 2" 2 $?
has "with bubblewrap's own words" "no namespaces for you" "$(cat "$work/errors")"
has "and ours" "could not build the set's namespace" "$(cat "$work/errors")"
sandbox --bind /usr/lib -- true 2>/dev/null; check "a directory that a set has anyway cannot be bound" 64 $?
PATH=$work/nothing "$set_program" sandbox -- /bin/true 2>"$work/errors"; check "no bubblewrap: exit code 2" 2 $?
has "and what to do" 'install the package "bubblewrap"' "$(cat "$work/errors")"
"$set_program" sandbox -- sleep 1000 & launcher=$!
sleep 0.3; kill -TERM $launcher; wait $launcher 2>/dev/null; check "a termination signal is passed on" 143 $?
"$set_program" sandbox --node -- sleep 1001 & launcher=$!
sleep 0.3; kill -KILL $launcher; wait $launcher 2>/dev/null; sleep 0.2
check "nothing is left of a killed sandbox" "" "$(pgrep -f 'sleep 1001')"

# --- run and remote control
"$set_program" run --name $name --vestrad "$work/daemon" --usb-dir STICK="$work/stick" --usb SMALL:1M --temperature 50 \
    -- 1 4 > "$work/out" 2> "$work/errors" & launcher=$!
"$set_program" wait --name $name; check "a set comes up" 0 $?
"$set_program" run --name $name --vestrad "$work/daemon" 2> "$work/second"; check "a second one of that name is refused" 1 $?
has "with a message" "is running already" "$(cat "$work/second")"
has "it is listed" "$name" "$("$set_program" list)"
remote exec -- sh -c 'exit 9'; check "exec passes the exit code on" 9 $?
remote exec -- sh -c 'kill -TERM $$'; check "and signals, as a shell does" 143 $?
check "exec passes the streams on" "in" "$(echo in | remote exec -- cat)"
sleep 0.2
check "the daemon has its arguments" "arguments: 1 4" "$(cat "$work/out")"
check "its log is shown" "logged" "$(remote log)"
check "temperature at the start" 50 "$(remote exec -- cat /sys/devices/platform/soc/thermal/temperature)"
remote temperature 126
check "temperature once changed" 126 "$(remote exec -- cat /sys/devices/platform/soc/thermal/temperature)"
remote exec -- sh -c 'echo dump > /media/STICK/file'
check "a stick that is a directory is seen outside" dump "$(cat "$work/stick/file")"
remote usb plug LATE --size 2M
check "sticks are listed in their order" "STICK SMALL LATE " "$(remote usb list | cut -d' ' -f1 | tr '\n' ' ')"
has "a stick has its size" "2048" "$(remote exec -- df -k /media/LATE)"
remote exec -- touch /media/LATE/kept; remote usb unplug LATE; remote usb plug LATE
check "what is on a stick stays when it is unplugged" /media/LATE/kept "$(remote exec -- ls /media/LATE/kept)"
remote usb unplug LATE --yank; remote exec -- ls /media/LATE 2>/dev/null; check "a stick that is pulled out is gone" 2 $?
remote usb unplug NONE 2>/dev/null; check "a stick that is not there cannot be unplugged" 1 $?
remote vconf set system/vestra/robust --type string 'a text'
check "vconf string" "a text" "$(remote vconf get system/vestra/robust)"
remote vconf set system/DOD/test_monitor 5
check "vconf integer" 5 "$(remote vconf get system/DOD/test_monitor)"
remote vconf set system/DOD/test_monitor five 2>/dev/null; check "no integer is a wrong use" 64 $?
remote vconf get no/such 2>/dev/null; check "a key that is not set" 1 $?
has "the module is not loaded yet" '"loaded": false' "$(remote module status --json)"
remote module load; remote exec -- sh -c 'echo 1 > /proc/vesertra_info'
has "the module is loaded and told" "tracing      on" "$(remote module status)"
remote module stall on; remote exec -- timeout 0.2 head -c 1 /proc/vesertra_info; check "reads wait while it stalls" 124 $?
remote module stall off; remote exec -- timeout 5 head -c 0 /proc/vesertra_info; check "and go on after that" 0 $?
remote key 87; check "a key press is taken" 0 $?
has "stop tells what happened" "ended by itself" "$("$set_program" stop --name $name)"
wait $launcher; check "run ends with the daemon's exit code" 0 $?
check "nothing is left of it" "" "$(ls "$XDG_RUNTIME_DIR")"
remote key 87 2>/dev/null; check "a set that does not run: exit code 3" 3 $?

"$set_program" run -q --name $name --vestrad "$work/daemon" -- stubborn > /dev/null & launcher=$!
"$set_program" wait --name $name; sleep 0.2
has "one that does not end is ended by force" "by force" "$("$set_program" stop --name $name --grace 0.3)"
wait $launcher; check "which is in order" 0 $?
"$set_program" run -q --name $name --vestrad "$work/daemon" -- crash > /dev/null; check "a crash is told" 139 $?
"$set_program" run -q --name $name --vestrad "$work/daemon" --log "$work/log" > /dev/null & launcher=$!
"$set_program" wait --name $name; sleep 0.2; kill -KILL $launcher; wait $launcher 2>/dev/null; sleep 0.2
check "the log goes to a file that is given" logged "$(cat "$work/log")"
check "nothing runs after the launcher was killed" "" "$(pgrep -f "$work/daemon")"
"$set_program" run -q --name $name --vestrad "$work/daemon" > /dev/null & launcher=$!
"$set_program" wait --name $name; check "what a killed set left does not hinder the next" 0 $?
sleep 0.2; kill -INT $launcher; wait $launcher; check "an interrupt stops the daemon in order" 0 $?

echo "$failures failed"
[ $failures -eq 0 ]
