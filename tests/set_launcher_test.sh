#!/bin/bash
# The launcher and remote control as a user has them: set_launcher_test.sh PATH-OF-vestra-set. A shell script takes the daemon's
# place. Needs the right to make sets; its sets have names that nobody else uses.
set -u

set_program=$(realpath "$1")
work=$(mktemp -d)
export XDG_RUNTIME_DIR=$work/runtime
mkdir -p "$XDG_RUNTIME_DIR" "$work/stick"
name=launcher-test
failures=0
trap 'kill $(jobs -p) 2>/dev/null; wait 2>/dev/null; rm -rf "$work"' EXIT

# check WHAT EXPECTED GOT
check() {
    if [ "$2" = "$3" ]; then
        echo "ok      $1"
    else
        echo "FAILED  $1: expected \"$2\", got \"$3\""
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
# comes_true COMMAND...: repeats it until it succeeds, for at most 30 s: sanitized programs on a loaded machine are slow.
comes_true() {
    local end=$((SECONDS + 30))
    until "$@"; do
        [ $SECONDS -lt $end ] || return 1
        sleep 0.05
    done
}
runs() { pgrep -f "^$1" > /dev/null; }
gone() { ! pgrep -f "$1" > /dev/null; }

sandbox() { "$set_program" sandbox "$@"; }
remote() { local command=$1; shift; "$set_program" "$command" --name $name "$@"; }
# Runs a command line in the set, where $node is the control node and $set this program.
in_set() { remote exec -- env node=/proc/vesertra_info set=/tv/bin/vestra-set bash -c "$1"; }
# Starts a set as $launcher and returns when its daemon is up and can be asked to stop; $waited is the exit code of "wait".
run_set() {
    rm -f "$work/up"
    "$set_program" run --name $name --vestrad "$work/daemon" "$@" & launcher=$!
    "$set_program" wait --name $name --timeout 60; waited=$?
    comes_true [ -e "$work/up" ] || check "the daemon is up" up "not up"
}

cat > "$work/daemon" <<'END'
#!/bin/bash
trap 'echo asked to stop; [ "$1" = stubborn ] || exit 0' RTMIN+6
[ "$1" = crash ] && kill -SEGV $$
echo "arguments: $*"
echo "logged" >> "$VESTRA_DLOG_FILE"
: > "${0%/*}/up"
while true; do sleep 0.05; done
END
chmod +x "$work/daemon"
ln -s /bin/sleep "$work/sleeper"  # a program that nobody else runs
cd "$work" || exit 1

# --- sandbox
sandbox -- sh -c 'exit 7'; check "a program's exit code is passed on" 7 $?
(sandbox -- sh -c 'kill -KILL $$') 2>/dev/null; check "the signal that ends it is passed on" 137 $?
sandbox -- "$work/missing" 2>/dev/null; check "a missing program gives 127" 127 $?
sandbox 2>/dev/null; check "a missing program argument is a usage error" 64 $?
check "arguments arrive unchanged" "a b|--|-x|" "$(sandbox -- printf '%s|' 'a b' -- -x)"
check "standard input arrives" "text" "$(echo text | sandbox -- cat)"
check "a closed standard input is an empty one" 0 "$(sandbox -- cat <&-; echo $?)"
check "the working directory is kept, and writable" "$work" "$(sandbox -- sh -c 'pwd; : > made')"
check "files written there are seen outside" yes "$([ -e made ] && echo yes)"
outside=$(mktemp /tmp/vestra-outside.XXXXXX)
check "/tmp is not the machine's" no "$(sandbox -- sh -c "[ -e $outside ] || echo no")"
rm -f "$outside"
check "an image has its marker file and no other" "/etc/release" "$(sandbox --image release -- sh -c 'ls /etc/debug /etc/release /etc/perf 2>/dev/null')"
check "/proc/uptime is a regular file" "regular empty file" "$(sandbox -- stat -c %F /proc/uptime)"
check "the machine's /etc is read through links" "$(getent passwd root)" "$(sandbox -- getent passwd root)"
check "without --node there is no control node" no "$(sandbox -- sh -c '[ -e /proc/vesertra_info ] || echo no')"
check "process ids have their links long before they are used" ok "$(sandbox -- timeout 60 bash -c '
    for round in 1 2; do
        for i in {1..150}; do (:); done
        (:) & later=$(($! + 4000))
        until [ -L /proc/$later ]; do sleep 0.1; done
    done
    echo ok')"
sandbox --usb-dir bad=/missing -- true 2>/dev/null; check "a missing stick directory is a usage error" 64 $?
has "a wrong rate is reported" "must be 0.01 to 100 samples" "$(sandbox --node --source host --rate 1000 -- true 2>&1)"
has "a misspelt configuration element shows the known ones" "max_file_size (10)" "$(sandbox --config max_file_siz=1 -- true 2>&1)"
has "sets do not nest" "do not nest" "$(sandbox --bind "$(dirname "$set_program")" -- "$set_program" sandbox -- true 2>&1)"
mkdir "$work/bin" && printf '#!/bin/sh\necho "no namespaces for you" >&2; exit 1\n' > "$work/bin/bwrap" && chmod +x "$work/bin/bwrap"
PATH=$work/bin:$PATH sandbox -- true 2>"$work/errors"; check "no namespace: exit code 2" 2 $?
has "with bubblewrap's own words" "no namespaces for you" "$(cat "$work/errors")"
has "and a message of this program" "could not build the set's namespace" "$(cat "$work/errors")"
sandbox --bind /usr/lib -- true 2>/dev/null; check "a directory that a set has itself cannot be bound" 64 $?
PATH=$work/nothing "$set_program" sandbox -- /bin/true 2>"$work/errors"; check "no bubblewrap: exit code 2" 2 $?
has "and the message says what to do" 'install the package "bubblewrap"' "$(cat "$work/errors")"
"$set_program" sandbox -- "$work/sleeper" 1000 & launcher=$!
comes_true runs "$work/sleeper"; kill -TERM $launcher; wait $launcher 2>/dev/null
check "a termination signal is passed on" 143 $?
"$set_program" sandbox --node -- "$work/sleeper" 1000 & launcher=$!
comes_true runs "$work/sleeper"; kill -KILL $launcher; wait $launcher 2>/dev/null
comes_true gone "$work/sleeper"; check "nothing is left of a killed sandbox" 0 $?

# --- run and remote control
run_set --usb-dir STICK="$work/stick" --usb SMALL:1M -- 1 4 > "$work/out" 2> "$work/errors"
check "a set comes up" 0 $waited
"$set_program" run --name $name --vestrad "$work/daemon" 2> "$work/second"; check "a second set of that name is refused" 1 $?
has "and the message says why" "is running already" "$(cat "$work/second")"
has "a running set is listed" "$name" "$("$set_program" list)"
remote exec -- sh -c 'exit 9'; check "exec passes the exit code on" 9 $?
remote exec -- sh -c 'kill -TERM $$'; check "a signal gives 128 + its number" 143 $?
remote exec -- "$work/missing" 2> "$work/errors"; check "exec of a missing program gives 127" 127 $?
has "and the message names it" "$work/missing: No such file" "$(cat "$work/errors")"
check "exec keeps the working directory" "$work" "$(remote exec -- pwd)"
"$set_program" exec --name $name -- "$work/sleeper" 1001 & helper=$!
comes_true runs "$work/sleeper 1001"; kill -TERM $helper; wait $helper; check "exec passes a termination signal on" 143 $?
"$set_program" exec --name $name -- "$work/sleeper" 1002 & helper=$!
comes_true runs "$work/sleeper 1002"; kill -KILL $helper; wait $helper 2>/dev/null
comes_true gone "$work/sleeper 1002"; check "a killed exec leaves no program behind" 0 $?
"$set_program" exec --name ../x -- true 2>/dev/null; check "a set's name is no path" 64 $?
check "exec passes standard input and output on" "in" "$(echo in | remote exec -- cat)"
check "the daemon gets the arguments" "arguments: 1 4" "$(cat "$work/out")"
check "the daemon's log is shown" "logged" "$(remote log)"
remote exec -- sh -c 'echo dump > /media/STICK/file'
check "a stick that is a directory gets the files" dump "$(cat "$work/stick/file")"
remote usb plug LATE --size 2M
check "sticks are listed in the order of plugging" "STICK SMALL LATE " "$(remote usb list | cut -d' ' -f1 | tr '\n' ' ')"
has "a stick has the given size" "2048" "$(remote exec -- df -k /media/LATE)"
remote exec -- touch /media/LATE/kept; remote usb unplug LATE; remote usb plug LATE
check "files on an unplugged stick are there after the next plug" /media/LATE/kept "$(remote exec -- ls /media/LATE/kept)"
remote usb unplug LATE --yank; remote exec -- ls /media/LATE 2>/dev/null; check "a stick that is pulled out is gone at once" 2 $?
remote vconf set system/DOD/test_monitor 5
check "a vconf integer is set" 5 "$(remote vconf get system/DOD/test_monitor)"
remote vconf set system/DOD/test_monitor five 2>/dev/null; check "a vconf integer that is none is a usage error" 64 $?
remote vconf get no/such 2>/dev/null; check "a vconf key that is not set is an error" 1 $?
has "the module is not loaded yet" '"loaded": false' "$(remote module status --json)"
remote module load; in_set 'echo 1 > $node'
has "a loaded module takes commands" "tracing      on" "$(remote module status)"
has "a write that is no command is refused" "Invalid argument" "$(in_set 'printf c-9-4-1 > $node' 2>&1)"
remote module inject 'error 1'; has "an injected error reaches the reader" "Input/output error" "$(in_set 'cat $node' 2>&1)"
remote module inject
has "while the module is unloaded no node can be made" "Permission denied" "$(in_set '$set module unload; echo 1 > $node' 2>&1)"
remote module load; has "a module that is loaded again is in its first state" "tracing      off" "$(remote module status)"
in_set 'echo 1 > $node'; remote module stall on; remote exec -- timeout 0.2 head -c 1 /proc/vesertra_info; check "reads wait during a stall" 124 $?
remote module stall off; remote exec -- timeout 60 head -c 1 /proc/vesertra_info > /dev/null; check "and continue after it" 0 $?
"$set_program" exec --name $name -- "$work/sleeper" 1003 2> "$work/errors" & helper=$!
comes_true runs "$work/sleeper 1003"
has "stop reports what happened" "ended by itself" "$("$set_program" stop --name $name)"
wait $launcher; check "run ends with the daemon's exit code" 0 $?
wait $helper; check "a program that runs when the set ends gives 3" 3 $?
has "and the message says so" "has ended" "$(cat "$work/errors")"
check "no file is left of it" "" "$(ls "$XDG_RUNTIME_DIR")"
remote key 87 2>/dev/null; check "a set that does not run gives exit code 3" 3 $?

run_set -q -- stubborn > /dev/null
has "a daemon that does not end is ended by force" "by force" "$("$set_program" stop --name $name --grace 0.3)"
wait $launcher; check "an end by force after a stop is exit code 0" 0 $?
"$set_program" run -q --name $name --vestrad "$work/daemon" -- crash > /dev/null; check "a crash is passed on as 128 + the signal" 139 $?
run_set -q --log "$work/log" > /dev/null
kill -KILL $launcher; wait $launcher 2>/dev/null
check "--log gives the log's file" logged "$(cat "$work/log")"
comes_true gone "$work/daemon"; check "nothing runs after the launcher was killed" 0 $?
run_set -q > /dev/null; check "what a killed set left does not disturb the next one" 0 $waited
kill -INT $launcher; wait $launcher; check "an interrupt stops the daemon in order" 0 $?

echo "$failures failed"
[ $failures -eq 0 ]
