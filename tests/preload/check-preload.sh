#!/bin/sh
# Runs a program that knows nothing of the preload library under it, and looks at what comes out:
# each way in which calls fail, whose calls count, the counts, and the text for each bad setting.
# Usage: check-preload.sh LIBRARY PROBE [EMULATOR...]
set -u

library=$1 probe=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0

# The sanitizers' runtimes want to come first, and find leaks where the program is made to end.
asan=verify_asan_link_order=0:detect_leaks=0

# run SETTINGS STEPS [EMULATOR...]: runs steps of the probe with "variable=value" settings. The
# output goes to $work/out, standard error to $work/error, the exit status to $status.
run() {
    settings=$1 steps=$2
    shift 2
    status=0
    # The emulator hands the environment on, LD_PRELOAD excepted; its own -E splits at commas.
    if [ $# -gt 0 ]; then
        set -- "$@" -E "LD_PRELOAD=$library"
    else
        set -- env ASAN_OPTIONS="$asan" LD_PRELOAD="$library"
    fi
    # shellcheck disable=SC2086 # lists of words
    env $settings "$@" "$probe" $steps >"$work/out" 2>"$work/error" || status=$?
}

complain() {
    echo "$1: $2"
    echo "  status $status; output: $(tr '\n' '|' <"$work/out"); errors: $(cat "$work/error")"
    failed=1
}

# wants LINE: the output has this line.
wants() {
    grep -qxF -- "$1" "$work/out" || complain "$settings $steps" "no line '$1'"
}

# says TEXT: standard error has this text.
says() {
    grep -qF -- "$1" "$work/error" || complain "$settings $steps" "no '$1' on standard error"
}

ends() {
    [ "$status" -eq "$1" ] || complain "$settings $steps" "did not end with $1"
}

# counts NAME CALLS FAILURES: the file of counts has this line. "-" stands for any number above 0.
counts() {
    if ! awk -v name="$1" -v calls="$2" -v failures="$3" '
        function is(number, wanted) { return wanted == "-" ? number > 0 : number == wanted }
        $1 == name && is($2, calls) && is($3, failures) { found = 1 }
        END { exit !found }' "$work/counts"; then
        complain "$settings $steps" "no line '$1 $2 $3' among: $(tr '\n' '|' <"$work/counts")"
    fi
}

everything='list print fifo semaphores connect timer sleep own log'

# Nothing is changed where nothing is asked for.
run '' "$everything" "$@"
for line in 'list: 3 items' 'print: done' 'fifo: 0' 'semaphores: 0' 'timer: called' \
    'sleep: whole' 'own: made'; do
    wants "$line"
done
ends 0

# Each way of failing, and the n-th call only.
run KIVGCL_FAULTS=newArray:2 'list list' "$@"
wants 'list: bad_alloc after 1' # the 2nd allocation; the second list has all of its own
wants 'list: 3 items'
run KIVGCL_FAULTS=newArray:2+ 'list list' "$@"
wants 'list: bad_alloc after 1'
wants 'list: bad_alloc after 0'
if ! grep -q __asan_init "$probe"; then # whose operator new calls no malloc
    run KIVGCL_FAULTS=malloc:3 list "$@"
    wants 'list: bad_alloc after 2' # by the C++ library on behalf of the library
fi
run KIVGCL_FAULTS=pthread_mutex_init:1:EAGAIN fifo "$@"
says 'code: 0x1000'
run KIVGCL_FAULTS=sem_init:1:ENOSYS,sem_wait:1:EINTR 'semaphores semaphores' "$@"
wants 'semaphores: 0x8018' # could not be made
wants 'semaphores: 0x8019' # was interrupted
says '(errno: 4)'
run KIVGCL_FAULTS=sem_wait:1 semaphores "$@"
says '(errno: 4)' # the usual one
run KIVGCL_FAULTS=sem_wait:1:33 semaphores "$@"
says '(errno: 33)'
run KIVGCL_FAULTS=nanosleep:1:EINTR sleep "$@"
wants 'sleep: ended early'
run KIVGCL_FAULTS=pthread_create:1:EAGAIN timer "$@"
wants 'timer: not called'
run KIVGCL_FAULTS=getaddrinfo:1:EAI_NONAME connect "$@"
wants 'connect: 32778'
run KIVGCL_FAULTS=getaddrinfo:1:EAI_MEMORY,socket:1+:13 connect "$@"
wants 'connect: 32778'
run KIVGCL_FAULTS=puts:1+ 'print' "$@"
ends 0

# Whose calls count.
run KIVGCL_FAULTS=socket:1:EMFILE 'own connect' "$@"
wants 'own: made'
run 'KIVGCL_FAULTS=socket:1:EMFILE KIVGCL_FAULTS_CALLERS=all' 'own connect' "$@"
wants 'own: Too many open files'
run 'KIVGCL_FAULTS=sem_wait:1:EINTR KIVGCL_FAULTS_CALLERS=libVorTrace.so,libOther.so' \
    'semaphores' "$@"
wants 'semaphores: 0'

# The counts: the same for the same steps, and none of the program's own.
run "KIVGCL_FAULTS_COUNT=$work/counts" 'list own fifo connect timer sleep log print' "$@"
counts newArray 5 0
counts socket 1 0
counts connect 1 0
counts pthread_create 1 0
counts nanosleep 1 0
counts clock_gettime - 0
counts pthread_cond_timedwait - 0
counts syslog 1 0
counts snprintf - 0
counts vsnprintf 1 0
counts printf 1 0
run "KIVGCL_FAULTS_COUNT=$work/counts KIVGCL_FAULTS=newArray:2,socket:1:EMFILE" 'list connect' "$@"
counts newArray 2 1
counts socket 1 1
for end in abort exit; do
    rm -f "$work/counts"
    run "KIVGCL_FAULTS_COUNT=$work/counts" "list $end" "$@"
    counts newArray 3 0
done
# What is not freed, and who frees what is.
if ! grep -q __asan_init "$probe"; then
    run "KIVGCL_FAULTS_COUNT=$work/counts" 'list own fifo' "$@"
    counts unfreed 0 0
    run "KIVGCL_FAULTS_COUNT=$work/counts" 'list keep list' "$@"
    counts unfreed 999 0
fi
# A child of fork leaves the file to its parent, and writes one of its own where it has a name.
run "KIVGCL_FAULTS_COUNT=$work/counts" 'list fork' "$@"
counts newArray 3 0
run "KIVGCL_FAULTS_COUNT=$work/per.%p.process" 'list fork' "$@"
number=$(find "$work" -name 'per.*.process' | wc -l)
[ "$number" -eq 2 ] || complain "$settings $steps" "$number files instead of 2"
run "KIVGCL_FAULTS_COUNT=$work/no/such/folder" list "$@"
says "libKivGCLFaults: KIVGCL_FAULTS_COUNT: cannot write '$work/no/such/folder': ENOENT"
ends 0

# Bad settings: each is named, and nothing runs.
refuses() {
    settings=$1
    text=$2
    shift 2
    run "$settings" list "$@"
    says "libKivGCLFaults: KIVGCL_FAULTS"
    says "$text"
    ends 125
    [ ! -s "$work/out" ] || complain "$settings" "the program ran"
}
number="the number of the call must be from 1 to 999999999, not"
refuses KIVGCL_FAULTS=recieve:1 \
    "KIVGCL_FAULTS: 'recieve:1': no such function; KIVGCL_FAULTS=help lists them: recieve" "$@"
refuses KIVGCL_FAULTS=recv "KIVGCL_FAULTS: 'recv': the number of the call is missing" "$@"
refuses KIVGCL_FAULTS=recv: "KIVGCL_FAULTS: 'recv:': $number " "$@"
refuses KIVGCL_FAULTS=recv:0 "KIVGCL_FAULTS: 'recv:0': $number 0" "$@"
refuses KIVGCL_FAULTS=recv:-1 "KIVGCL_FAULTS: 'recv:-1': $number -1" "$@"
refuses KIVGCL_FAULTS=recv:1x "KIVGCL_FAULTS: 'recv:1x': $number 1x" "$@"
refuses KIVGCL_FAULTS=recv:+ "KIVGCL_FAULTS: 'recv:+': $number " "$@"
refuses KIVGCL_FAULTS=recv:1000000000 "KIVGCL_FAULTS: 'recv:1000000000': $number 1000000000" "$@"
refuses KIVGCL_FAULTS=recv:1:EFOO "KIVGCL_FAULTS: 'recv:1:EFOO': no such error: EFOO" "$@"
refuses KIVGCL_FAULTS=recv:1: "KIVGCL_FAULTS: 'recv:1:': no such error: " "$@"
refuses KIVGCL_FAULTS=recv:1:EIO:2 "KIVGCL_FAULTS: 'recv:1:EIO:2': no such error: EIO:2" "$@"
refuses KIVGCL_FAULTS=recv:1,,send:1 "KIVGCL_FAULTS: '': no such function" "$@"
refuses KIVGCL_FAULTS=freeaddrinfo:1 \
    "KIVGCL_FAULTS: 'freeaddrinfo:1': this function cannot fail" "$@"
refuses KIVGCL_FAULTS=newArray:1:ENOMEM \
    "KIVGCL_FAULTS: 'newArray:1:ENOMEM': this function throws std::bad_alloc and takes no error" \
    "$@"
long=recv:$(printf '%0100d' 1)
refuses "KIVGCL_FAULTS=$long" "this is too long" "$@"
many=recv:1
while [ "${#many}" -lt 455 ]; do
    many=$many,recv:1
done
refuses "KIVGCL_FAULTS=$many" "there may be 64 entries at most" "$@"
# All bad entries are named.
refuses KIVGCL_FAULTS=recv:0,sned:1 "KIVGCL_FAULTS: 'recv:0'" "$@"
says "'sned:1'"
list="neither 'all' nor a list of up to 16 names of libraries"
refuses KIVGCL_FAULTS_CALLERS= "KIVGCL_FAULTS_CALLERS: '' is $list" "$@"
refuses KIVGCL_FAULTS_CALLERS=a,,b "KIVGCL_FAULTS_CALLERS: 'a,,b' is $list" "$@"
refuses KIVGCL_FAULTS_CALLERS=1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17 "is $list" "$@"
refuses "KIVGCL_FAULTS_CALLERS=$(printf '%01100d' 0)" "KIVGCL_FAULTS_CALLERS: this is too long" "$@"

run KIVGCL_FAULTS=help list "$@"
wants 'recv: returns -1, the error in errno, by default ECONNRESET'
wants 'newArray: throws std::bad_alloc'
wants 'pthread_create: returns the error, by default EAGAIN'
wants 'malloc: returns 0 or NULL, the error in errno, by default ENOMEM'
wants 'freeaddrinfo: cannot fail; its calls are counted'
ends 0

[ "$failed" -eq 0 ] && echo "the preload library: as expected"
exit "$failed"
