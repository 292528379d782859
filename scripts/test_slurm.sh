#!/usr/bin/env bash
# Runs jobs through a Slurm of four nodes on this machine, with the daemon beside it, and looks what becomes of them: admitted,
# refused, ended, and over the sudden deaths of the controller and of the daemon. Needs root. Everything listens on 127.0.0.1
# or in a new directory, which is removed at the end.
#
#   test_slurm.sh           all of it
#   test_slurm.sh --jobs N  N short jobs in each mode instead, and how long they take

source "$(dirname "$0")/prepare.sh"
shopt -s extglob
jobs=0
[ "${1:-}" = --jobs ] && jobs=$2
[ "$(id -u)" -eq 0 ] || { echo "test_slurm.sh: needs root" >&2; exit 2; }

# Installed services are not to start here.
if [ ! -e /usr/sbin/policy-rc.d ]; then
    printf '#!/bin/sh\nexit 101\n' >/usr/sbin/policy-rc.d
    chmod 755 /usr/sbin/policy-rc.d
    made_policy=yes
fi
install_packages "${PACKAGES[@]}" munge slurmctld slurmd slurm-client
build release --target reservationd reservationctl reservation-slurm
bin=$PWD/build/release
dir=$(mktemp -d /tmp/slurm_test.XXXXXX)
chmod 755 "$dir"
export SLURM_CONF=$dir/slurm.conf RESERVATIOND_ADDRESS=unix:$dir/reservationd.sock
declare -A process    # by name

# ---- What runs here ----

# Processes that have to do with the directory, other than this script's own.
find_processes() {
    env -u SLURM_CONF -u RESERVATIOND_ADDRESS grep --files-with-matches --no-messages --text "[/]${dir#/}" \
        /proc/[0-9]*/{cmdline,environ} | cut -d / -f 3 | sort -u || true
}

finish() {
    local status=$? name left i
    if [ "$status" -ne 0 ]; then
        echo "FAILED; the logs:" >&2
        tail -n 15 "$dir"/{controller,daemon,service,prolog,epilog}.log >&2
    fi
    for name in service controller n1 n2 n3 n4 daemon munge; do
        [ -z "${process[$name]:-}" ] || stop "$name"
    done
    for ((i = 0; i < 100; i++)); do
        left=$(find_processes)
        [ -n "$left" ] || break
        sleep 0.1
    done
    if [ -n "$left" ]; then
        echo "These processes are left:" >&2
        ps -o pid,args -p "$(paste -sd , <<<"$left")" >&2 || true
        kill -9 $left || true
        status=1
    fi
    rm -rf "$dir" ${made_policy:+/usr/sbin/policy-rc.d}
    exit "$status"
}

start() { # NAME COMMAND...
    local name=$1
    shift
    "$@" >>"$dir/$name.log" 2>&1 &
    process[$name]=$!
}

stop() { # NAME [SIGNAL]
    kill "-${2:-TERM}" "${process[$1]}"
    wait "${process[$1]}" 2>/dev/null || true
    unset "process[$1]"
}

# Waits until the command succeeds and prints what is wanted, as a pattern; for a minute, or the number of seconds in $patience.
await() { # PATTERN COMMAND...
    local pattern=$1 output= i
    shift
    for ((i = 0; i < ${patience:-60} * 10; i++)); do
        output=$("$@" 2>&1) && [[ $output == $pattern ]] && return
        sleep 0.1
    done
    echo "'$*' does not print '$pattern' but: $output" >&2
    return 1
}

start_daemon() {
    start daemon "$bin/daemon/reservationd" --config /dev/null --persistent-dir "$dir/state" --socket "$dir/reservationd.sock" \
        --nodes "$dir/nodes" --reservation-allow-ending-jobs
    await '*' "$bin/ctl/reservationctl" status
}

start_controller() {
    start controller slurmctld -D -f "$SLURM_CONF"
    await '*UP*' scontrol ping
}

configure_hooks() { # LINES
    printf '%s\n' "address = $RESERVATIOND_ADDRESS" "slurm-conf = $SLURM_CONF" "state-file = $dir/position" \
        'reconcile-every = 1' 'pkey = 0x8001' "$@" >"$dir/hooks.conf"
    "$bin/integrations/slurm/reservation-slurm" check --config "$dir/hooks.conf" >/dev/null
    [ -z "${process[service]:-}" ] || stop service
    start service "$bin/integrations/slurm/reservation-slurm" service --config "$dir/hooks.conf"
}

start_cluster() {
    local host node
    host=$(hostname -s)
    mkdir "$dir/munge" "$dir/slurm"
    chmod 755 "$dir/munge"
    head -c 1024 /dev/urandom >"$dir/munge/key"
    chmod 400 "$dir/munge/key"
    echo 'n[1-4] 0x11-0x14' >"$dir/nodes"
    for hook in prolog epilog; do
        printf '#!/bin/sh\nexec %s %s --config %s 2>>%s\n' "$bin/integrations/slurm/reservation-slurm" "$hook" \
            "$dir/hooks.conf" "$dir/$hook.log" >"$dir/$hook"
        chmod 755 "$dir/$hook"
    done
    cat >"$SLURM_CONF" <<CONF
ClusterName=test
SlurmctldHost=$host(127.0.0.1)
SlurmctldPort=27817
AuthType=auth/munge
AuthInfo=socket=$dir/munge/sock,cred_expire=5
CredType=cred/munge
CommunicationParameters=NoCtldInAddrAny,NoInAddrAny
SlurmUser=root
SlurmdUser=root
StateSaveLocation=$dir/slurm
SlurmdSpoolDir=$dir/spool-%n
SlurmctldPidFile=$dir/slurmctld.pid
SlurmdPidFile=$dir/slurmd-%n.pid
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
AccountingStorageType=accounting_storage/none
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
MpiDefault=none
MailProg=/bin/true
ReturnToService=2
SchedulerParameters=batch_sched_delay=0,sched_interval=1,sched_min_interval=0,default_queue_depth=1000
PrologSlurmctld=$dir/prolog
EpilogSlurmctld=$dir/epilog
PrologEpilogTimeout=60
PrologFlags=Alloc
$(for node in 1 2 3 4; do echo "NodeName=n$node NodeHostname=$host NodeAddr=127.0.0.1 Port=$((27820 + node)) CPUs=2 RealMemory=100"; done)
PartitionName=all Nodes=ALL Default=YES MaxTime=INFINITE State=UP
CONF
    start munge munged -F --key-file="$dir/munge/key" --socket="$dir/munge/sock" --pid-file="$dir/munge/pid" \
        --log-file="$dir/munge/log" --seed-file="$dir/munge/seed"
    start_daemon
    configure_hooks 'mode = existing'
    start_controller
    for node in 1 2 3 4; do start "n$node" slurmd -D -N "n$node" -f "$SLURM_CONF"; done
    await 'idle 4' sinfo --noheader --format='%t %D'
}

ctl() { "$bin/ctl/reservationctl" "$@"; }
change() { ctl "$@" >>"$dir/changes.log"; }

submit() { # [OPTION OF SBATCH...] COMMAND; prints the job's id
    sbatch --parsable --uid=nobody --gid=nogroup --chdir=/tmp --output=/dev/null "${@:1:$#-1}" --wrap "${!#}"
}

await_job() { # ID PATTERN-OF-SCONTROL
    await "*$2*" scontrol --oneliner show job "$1"
}

await_nothing_left() {
    await '' squeue --noheader
    await 'JOB *GUIDS' ctl job list
    await "${1:-}" ctl list --keys
}

# ---- What becomes of jobs ----

test_existing_reservations() {
    local job refused foreign wrong
    change create A --pkey 0x8001 --nodes 'n[1-2]' --num-trees 4
    change create B --pkey 0x8002 --nodes n3
    job=$(submit --nodelist 'n[1-2]' --comment 'trees=4 reservation=A' 'srun true; sleep 600')
    await_job "$job" JobState=RUNNING
    await "*$job  A *n\[1-2\]*" ctl job list
    refused=$(submit --nodelist n1 --comment trees=1 'sleep 600')
    await_job "$refused" 'JobState=SPECIAL_EXIT*AdminComment=reservation: refused: RESULT_LIMIT_EXCEEDED*'
    foreign=$(submit --nodelist 'n[3-4]' 'sleep 600')
    await_job "$foreign" 'JobState=SPECIAL_EXIT*AdminComment=reservation: refused: RESULT_NO_RESERVATION*'
    wrong=$(submit --nodelist n3 --comment 'trees=4 plane=1' 'sleep 600')
    await_job "$wrong" 'JobState=SPECIAL_EXIT*AdminComment=reservation: refused: its comment: *plane=1*'
    if srun --nodelist n4 --immediate=30 true 2>"$dir/srun.log"; then return 1; fi
    grep -q 'PrologSlurmctld failed, job killed' "$dir/srun.log"
    srun --nodelist n3 true

    change delete A
    await_job "$job" 'JobState=CANCELLED*AdminComment=reservation: reservation A is lost to the job*'
    change delete B
    scancel "$refused" "$foreign" "$wrong"
    await_nothing_left
}

test_own_reservations() {
    local mode one two
    for mode in account user job; do
        configure_hooks "mode = $mode" 'num-trees = 3' 'trees = 2' '[user nobody]' 'trees = 1'
        one=$(submit --account acct --nodelist n1 'sleep 600')
        two=$(submit --account acct --nodelist n2 'sleep 600')
        await_job "$one" JobState=RUNNING
        await_job "$two" JobState=RUNNING
        case $mode in
            account) await '*slurm-account-acct *2 of 3 *n\[1-2\]*' ctl list ;;
            user) await '*slurm-user-nobody *2 of 3 *n\[1-2\]*' ctl list ;;
            job) await "*slurm-job-$one *1 of 3 *n1*slurm-job-$two *1 of 3 *n2*" ctl list ;;
        esac
        scancel "$one"
        await '*slurm-* 1 of 3 *n2*' ctl list
        scancel "$two"
        await_nothing_left
    done

    # Slurm gives a node to the next job before the epilog of the last one is over.
    sbatch --parsable --uid=nobody --gid=nogroup --chdir=/tmp --output=/dev/null --exclusive --array 1-20 --wrap true >/dev/null
    await_nothing_left
}

test_sudden_deaths() {
    configure_hooks 'mode = account'
    local job
    # The daemon does not answer, dies in the middle of the prolog, and comes back.
    kill -STOP "${process[daemon]}"
    job=$(submit --account acct 'sleep 600')
    await_job "$job" JobState=CONFIGURING
    await '*prolog*' pgrep --full --list-full "reservation-slurm prolog --config $dir/"
    stop daemon KILL
    start_daemon
    await_job "$job" JobState=RUNNING
    await "*$job  slurm-account-acct *" ctl job list

    scancel "$job"
    await_nothing_left

    # It does not answer at all.
    kill -STOP "${process[daemon]}"
    configure_hooks 'mode = account' 'timeout = 2' 'on-no-answer = run'
    job=$(submit --account acct true)
    await_job "$job" 'JobState=COMPLETED*AdminComment=reservation: runs without trees: the daemon cannot be asked'
    kill -CONT "${process[daemon]}"
    await_nothing_left

    # What the daemon ends while the service and the controller are away is ended when they are back.
    configure_hooks 'mode = account'
    job=$(submit --account acct 'sleep 600')
    await_job "$job" JobState=RUNNING
    stop service KILL
    stop controller
    change delete slurm-account-acct
    configure_hooks 'mode = account'
    start_controller
    await_job "$job" JobState=CANCELLED

    # The controller dies soon after submissions, and forgets some of the jobs and their ids.
    for ((i = 0; i < 4; i++)); do submit --account acct "sleep $i"; done
    await '*slurm-account-acct*' ctl list --keys
    stop controller KILL
    start_controller
    job=$(submit --account acct 'sleep 1')
    # Slurm holds a job for good whose script it has removed with that of an earlier one of its id.
    await '*JobState=@(COMPLETED|PENDING Reason=launch_failed)*' scontrol --oneliner show job "$job"
    scancel --user=nobody
    await_nothing_left
}

test_many_jobs() {
    local mode before patience=600
    for mode in existing account user job; do
        configure_hooks "mode = $mode"
        [ "$mode" != existing ] || change create A --pkey 1 --nodes 'n[1-4]'
        before=$(date +%s)
        sbatch --parsable --uid=nobody --gid=nogroup --chdir=/tmp --output=/dev/null --account acct --exclusive \
            --array "1-$jobs" --wrap true >/dev/null
        await_nothing_left "$([ "$mode" != existing ] || echo A)"
        echo "$mode: $jobs jobs, nothing left after $(($(date +%s) - before)) s"
        [ "$mode" != existing ] || change delete A
    done
}

trap finish EXIT
start_cluster
if [ "$jobs" -gt 0 ]; then
    test_many_jobs
else
    test_existing_reservations
    test_own_reservations
    test_sudden_deaths
fi
echo "Slurm's jobs and the daemon's are the same, and nothing is left" >&2
