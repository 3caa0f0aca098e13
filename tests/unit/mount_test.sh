#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
#
# mount_test.sh TARV-HOST: a mounted host as a shell sees it, with nothing but echo, cat and their
# like; what the documents show of one is tried by tests/sessions. Exit status 77 where nothing can
# be mounted. Nothing here waits for a length of time: it waits until something is so, for 20 seconds
# at most.
set -u
program=$1
work=$(mktemp -d)
directory=$work/mnt
mkdir "$directory"
control=$directory/quorvane/tarv/control
version=$directory/quorvane/tarv/version
kmsg=$directory/kmsg
header='IP address       HW type     Flags       HW address            Mask     Device'
busy='Another call is pending please try later ...'
failures=0
host=

clean_up() {
    [ -z "$host" ] || kill -KILL "$host" 2>/dev/null
    ! mounted || fusermount3 -u -z "$directory" || umount -l "$directory"
    rm -rf "$work"
}
trap clean_up EXIT

mounted() { grep -qF " $directory " /proc/mounts; }

fail() {
    printf 'FAILED at lines %s: %s\n' "${BASH_LINENO[*]}" "$*"
    failures=$((failures + 1))
}
# equal ACTUAL EXPECTED
equal() { [ "$1" = "$2" ] || fail "expected <$2>, got <$1>"; }
# within COMMAND...: it succeeds sooner or later.
within() {
    local end=$((SECONDS + 20))
    until "$@"; do
        [ "$SECONDS" -lt "$end" ] || { fail "never: $*"; return 1; }
        sleep 0.02
    done
}
contains() { grep -qsF -- "$2" "$1"; }

start() {
    : >"$work/log"  # what the host before this one said is not to be taken for this one's
    # Who is started in the background by a script would ignore this one.
    env --default-signal=QUIT "$program" run --mount "$directory" "$@" >"$work/log" 2>&1 &
    host=$!
    within ready
}
# It answers earlier, but a signal that ends it may then meet a thread that just begins, which the run
# time of the thread sanitizer does not survive.
ready() { contains "$work/log" "Mounted on $directory;" || ! kill -0 "$host" 2>/dev/null; }
# stop SIGNAL: the exit status is left in $status.
stop() {
    kill -"$1" "$host"
    wait "$host" 2>/dev/null
    status=$?
    host=
}

# table FILE: its addresses, hardware addresses and devices.
table() { awk 'FNR > 1 { print $1, $4, $6 }' "$1"; }

skip_where_nothing_can_be_mounted() {
    local reason
    reason=$("$program" run --mount "$directory" --for 0.01 2>&1 >/dev/null) && return
    case $reason in
        *"no /dev/fuse"* | *"no fusermount3"* | *"not permitted"* | *"ermission denied"*)
            echo "skipped: $reason"
            exit 77
            ;;
    esac
    fail "$reason"
}

refusals_start_nothing() {
    local out
    out=$("$program" run --mount "$work/none" 2>&1)
    equal "$?/$out" "2/tarv-host: --mount: $work/none: No such file or directory"
    out=$("$program" run --mount "$0" 2>&1)
    equal "$?/$out" "2/tarv-host: --mount: $0: Not a directory"
    # A machine without the device, for whoever may make one.
    if unshare -m true 2>/dev/null; then
        out=$(unshare -m sh -c "mount -t tmpfs none /dev && exec $program run --mount $directory" 2>&1)
        equal "$?/${out%%:*}/$(wc -l <<<"$out")" "2/tarv-host/1"
        [[ $out == *"no /dev/fuse"*"modprobe fuse"* ]] || fail "$out"
    fi
}

tree_is_that_of_proc() {
    equal "$(cd "$directory" && find . | sort | tr '\n' ' ')" \
        ". ./kmsg ./quorvane ./quorvane/tarv ./quorvane/tarv/control ./quorvane/tarv/metrics ./quorvane/tarv/version "
    equal "$(stat -c '%A %s' "$control" "$version" | tr '\n' ' ')" "-rw-r--r-- 0 -r--r--r-- 0 "
    equal "$(stat -c %A "$directory/quorvane" "$kmsg" | tr '\n' ' ')" "dr-xr-xr-x -r--r--r-- "
    equal "$(cut -d' ' -f1,2 "$version")" "tarv 1.21"
    equal "$(cat "$control")" "$header"
    equal "$(cat "$directory/quorvane" 2>&1)" "cat: $directory/quorvane: Is a directory"
    ! cat "$directory/none" 2>/dev/null || fail "a file that is not there was read"
    ! mkdir "$directory/new" 2>/dev/null || fail "a directory was made"
}

writes_are_taken_whatever_they_say() {
    echo add 10.0.0.1 10.9.0.2 4660 >"$control" || fail "add"
    echo addibarp 10.0.0.1 10.9.0.3 0xfe800000000000000002c90300001234 7 >>"$control" || fail "addibarp"
    printf 'remove 10.9.0.3' >"$control"
    equal "$(table "$control")" "10.9.0.2 00:AA:00:00:12:34 ipoib"
    echo fly 10.9.0.3 >"$control" || fail "fly"
    contains "$kmsg" "pqn /proc: unknown command: 'fly' '10.9.0.3'" || fail "fly"
}

# metric NAME: its value, which may have labels.
metric() { awk -v name="$1" '$1 == name { print $2 }' "$directory/quorvane/tarv/metrics"; }
has_both_paths() { grep -q '^10.0.0.2 .*0x3ff' "$control"; }

metrics_follow_what_happens() {
    local metrics=$directory/quorvane/tarv/metrics
    local asked='tarv_packets_total{port="1",direction="out",kind="arp_request"}' before entries
    before=$(metric "$asked")
    entries=$(metric tarv_cache_entries)
    echo invalidate 10.0.0.2 2 >"$control"
    within has_both_paths
    equal "$(($(metric "$asked") - before))" 1
    equal "$(metric 'tarv_packets_total{port="1",direction="in",kind="arp_reply"}')" 1
    equal "$(metric tarv_cache_entries)" $((entries + 1))
    equal "$(metric tarv_requests_pending\{for=\"paths\"\})" 0
    echo remove 10.0.0.2 >"$control"
    equal "$(metric tarv_cache_entries)" "$entries"
    equal "$(tail -n 1 "$metrics")" "# EOF"
    if /usr/bin/python3 -c 'import prometheus_client.openmetrics' 2>/dev/null; then
        equal "$(/usr/bin/python3 -c 'import sys
from prometheus_client.openmetrics import parser
for family in parser.text_string_to_metric_families(sys.stdin.read()):
    if not family.samples or not family.documentation:
        print(family)' <"$metrics" 2>&1)" ""
    else
        echo "the form of the metrics is not tried: there is no python3-prometheus-client"
    fi
    ! echo x 2>/dev/null >"$metrics" || fail "metrics were written to"
}

# At a terminal that becomes narrow, until Ctrl-C.
top_shows_the_host() {
    equal "$("$program" top "$directory" | grep -c -e "^node01, 10.0.0.1, up " -e "^port  link  LID ")" 2
    equal "$("$program" top "$work" 2>&1)" \
        "tarv-host: $work: no host is mounted there; tarv-host run --mount DIR mounts one"
    python3 -c 'import pexpect' 2>/dev/null || return 0
    equal "$(python3 - "$program" "$directory" 2>&1 <<'END'
import sys, pexpect
top = pexpect.spawn(sys.argv[1], ["top", sys.argv[2]], dimensions=(24, 80), timeout=20)
top.expect_exact("\x1b[?1049h")
top.expect_exact("port  link  LID  peers")
before = top.getecho()
top.setwinsize(20, 40)
top.expect_exact("port  peers  misses  retries  time-outs\x1b[K")
top.sendintr()
top.expect_exact("\x1b[?1049l")
top.expect(pexpect.EOF)
top.close()
print(top.exitstatus, top.signalstatus, before)
END
)" "0 None False"
}

interrupted_readers_leave_nothing_held() {
    local i whole
    whole=$(cat "$control")
    for i in {1..100}; do
        equal "$(head -c 10 "$control")" "IP address"
        equal "$(cat "$control")" "$whole"
    done
    # As long as the file stays open, its reader is midway; who comes meanwhile is told so, in
    # however small pieces he reads.
    exec 3<"$control" 4<"$control"
    head -c 10 <&3 >"$work/begin"
    head -c 10 <&4 >"$work/told"
    equal "$(cat "$control")" "$busy"
    equal "$(cat "$work/begin" - <&3)" "$whole"
    equal "$(cat "$work/told" - <&4)" "$busy"
    exec 3<&- 4<&-
    equal "$(cat "$control")" "$whole"
}

# A shell that reads lines reads ahead, and goes back to where the line ended.
lines_are_read_one_by_one() {
    local i line lines=
    for i in {1..100}; do
        echo add 10.0.0.1 "10.7.0.$i" "$i"
    done | while read -r line; do echo "$line" >"$control"; done
    while read -r line; do
        lines+=$line$'\n'
        [ "${#lines}" -gt 200 ] || cat "$control" >"$work/other"
    done <"$control"
    equal "$lines" "$(cat "$control")"$'\n'
    equal "$(wc -l <<<"$lines")" 103
    echo flush >"$control"
}

one_write_is_one_command() {
    local before after
    before=$(grep -c 'usage:' "$kmsg")
    awk 'BEGIN { for (i = 0; i < 20000; ++i) print "fly" }' | dd of="$control" bs=80000 count=1 \
        iflag=fullblock 2>/dev/null || fail "dd"
    after=$(grep -c 'usage:' "$kmsg")
    equal "$((after - before))" 1
}

writer() {
    local i
    for i in {1..20}; do
        echo add 10.0.0.1 "10.8.$1.$i" "$i" >"$control" || echo "writer $1"
    done
}
reader() {
    local i
    for i in {1..20}; do
        cat "$control" >"$work/read.$1.$i" || echo "reader $1"
    done
}
ten_writers_and_ten_readers_at_once() {
    local i jobs=()
    for i in {1..10}; do
        writer "$i" >"$work/writer.$i" &
        jobs+=($!)
        reader "$i" >"$work/reader.$i" &
        jobs+=($!)
    done
    wait "${jobs[@]}"
    equal "$(cat "$work"/writer.* "$work"/reader.*)" ""
    equal "$(table "$control" | grep -c '^10\.8\.')" 200
    # Each reader got a whole table or was told to come later.
    equal "$(awk -v header="$header" -v busy="$busy" '
        FNR == 1 && $0 == header { ++tables; next }
        FNR == 1 && $0 == busy { next }
        length($0) != 77 || $6 != "ipoib" { print FILENAME ": " $0 }
        END { if (!tables) print "no table" }' "$work"/read.*)" ""
    echo flush >"$control"
    equal "$(cat "$control")" "$header"
}

kmsg_is_followed() {
    local tail_pid
    tail -n +1 -f -s 0.05 "$kmsg" >"$work/followed" &
    tail_pid=$!
    within contains "$work/followed" "TARV: Initialized."
    echo show 10.7.7.7 >"$control"
    within contains "$work/followed" "Looking for IP: 10.7.7.7."
    kill "$tail_pid"
    wait "$tail_pid" 2>/dev/null
    equal "$(cat "$kmsg")" "$(cat "$work/followed")"
    equal "$(wc -c <"$kmsg")" "$(stat -c %s "$kmsg")"
    equal "$(grep -cvE '^<[0-7]>\[ *[0-9]+\.[0-9]{3}\] ' "$kmsg")" 0
}

what_is_read_only_refuses_writers() {
    local file
    for file in "$version" "$kmsg"; do
        ! echo x 2>/dev/null >"$file" || fail "$file was written to"
    done
    [ "$(id -u)" = 0 ] || return 0
    chmod 755 "$work"
    equal "$(setpriv --reuid=65534 --regid=65534 --clear-groups cat "$control")" "$header"
    ! setpriv --reuid=65534 --regid=65534 --clear-groups sh -c "echo flush >$control" 2>/dev/null ||
        fail "the control file was written to by somebody else"
}

unloads_and_unmounts() {
    local status
    exec 3<>"$control"
    stop "$1"
    equal "$status" 0
    ! mounted || fail "still mounted"
    equal "$(ls -A "$directory")" ""
    contains "$work/log" "TARV: Unloaded." || fail "not unloaded"
    contains "$work/log" "Unloaded; nothing remains" || fail "$(tail -n 3 "$work/log")"
    # Who still has a file open is told so at once.
    ! echo flush 2>/dev/null >&3 || fail "a file of an unmounted host was written to"
    exec 3>&-
}

unmounts_when_killed() {
    local status signal
    ulimit -c 0
    for signal in HUP QUIT ILL TRAP ABRT BUS FPE USR1 SEGV USR2 ALRM STKFLT XCPU XFSZ VTALRM PROF IO \
        PWR SYS RTMIN RTMAX; do
        start
        stop "$signal"
        equal "$status" "$((128 + $(kill -l "$signal")))"
        within unmounted || fusermount3 -u -z "$directory"
    done
    # Nothing can be done about this one, but it is said what helps.
    start
    stop KILL
    equal "$("$program" run --mount "$directory" 2>&1)" \
        "tarv-host: --mount: $directory: a program that was killed has left its mount there; fusermount3 -u $directory takes it away"
    fusermount3 -u "$directory" || fail "fusermount3"
}
unmounted() { ! mounted; }

a_detached_host_is_there_when_it_says_so() {
    local out process
    echo before >"$work/log"
    out=$("$program" run --mount "$directory" --detach --log "$work/log" <"$0")
    equal "$?/$(cut -d' ' -f1,2 "$version")" "0/tarv 1.21"
    # Nothing of the terminal is kept.
    process=$(grep -o 'process [0-9]*' <<<"$out" | cut -d' ' -f2)
    equal "$(readlink "/proc/$process/fd/"{0,1,2} | paste -sd' ')" "/dev/null $work/log $work/log"
    fusermount3 -u "$directory" || fail "fusermount3"
    within contains "$work/log" "Unloaded; nothing remains"
    equal "$(head -n 1 "$work/log")" before
    out=$("$program" run --mount "$work/none" --detach --log "$work/log" 2>&1)
    equal "$?/$out" "2/tarv-host: --mount: $work/none: No such file or directory"
}

a_reader_who_sleeps_or_goes_stops_nothing() {
    local i
    mkfifo "$work/fifo"
    "$program" run --mount "$directory" --debug-level 5 >"$work/fifo" 2>"$work/errors" &
    host=$!
    exec 4<"$work/fifo"
    within [ -e "$kmsg" ]
    for i in {1..300}; do
        echo dump >"$control"
    done
    [ "$(wc -c <"$kmsg")" -gt 100000 ] || fail "a pipe would not have been full"
    kill -INT "$host"
    within unmounted
    equal "$(tail -n 1 <&4)" "no timer armed, no datagram out, no name registered."
    exec 4<&-
    wait "$host"
    equal "$?" 0
    host=
    "$program" run --mount "$directory" 2>"$work/errors" | true
    equal "${PIPESTATUS[0]}/$(cat "$work/errors")" "1/tarv-host: standard output: Broken pipe"
    ! mounted || fail "still mounted"
}

skip_where_nothing_can_be_mounted
refusals_start_nothing
start
tree_is_that_of_proc
writes_are_taken_whatever_they_say
metrics_follow_what_happens
top_shows_the_host
interrupted_readers_leave_nothing_held
lines_are_read_one_by_one
one_write_is_one_command
ten_writers_and_ten_readers_at_once
kmsg_is_followed
what_is_read_only_refuses_writers
unloads_and_unmounts INT
start
unloads_and_unmounts TERM
unmounts_when_killed
a_detached_host_is_there_when_it_says_so
a_reader_who_sleeps_or_goes_stops_nothing
[ "$failures" = 0 ] || { echo "$failures failed"; exit 1; }
echo "all passed in $SECONDS seconds"
