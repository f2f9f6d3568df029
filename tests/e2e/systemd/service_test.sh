#!/usr/bin/env bash
# The service on a machine of its own: packages, service control, a linked camera, a kill, a boot, removal.
# Usage: service_test.sh BUILD-FOLDER [SANITIZER]. Exit status 0 passed, 1 failed, 77 skipped.
set -u
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
sanitizer=${2:-}
. "$here/machine.sh"

[ -z "$sanitizer" ] || machine_skip "the unit's confinement leaves no room for the $sanitizer sanitizer"
[ -n "${ZU_MACHINE_MOUNTS:-}" ] || machine_possible
machine_own_mounts "$0" "$@"
for program in cpack dpkg-shlibdeps file; do
    command -v "$program" > /dev/null || machine_skip "$program is missing, so there are no packages to install"
done

folder=$(mktemp -d)
trap 'machine_halt; umount -l "$folder"; rmdir "$folder"' EXIT
mount -t tmpfs tmpfs "$folder" || exit 1

camera=127.0.14.40
failures=0
step() { echo "== $* ($SECONDS s)"; }
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}
give_up() {
    fail "$*"
    in_machine journalctl --no-pager -n 60 2> /dev/null
    exit 1
}

# expect WORDS COMMAND...: runs it in the machine; what it prints must hold the words, and its status be 0.
expect() {
    local words=$1 printed status
    shift
    printed=$(in_machine "$@" 2>&1)
    status=$?
    if [[ $printed != *"$words"* ]]; then
        fail "'$*' did not print '$words' but: $printed"
    elif [ $status -ne 0 ]; then
        fail "'$*' ended with status $status"
    fi
}

# within SECONDS WHAT COMMAND...: waits until the command succeeds.
within() {
    local limit=$((SECONDS + $1)) what=$2
    shift 2
    until "$@" > /dev/null 2>&1; do
        if [ $SECONDS -ge $limit ]; then
            fail "$what, in time"
            return 1
        fi
        sleep 0.1
    done
}

property() { in_machine systemctl show --value -p "$2" "$1"; }
is_active() { in_machine systemctl --quiet is-active "$1"; }
is_gone() { [ "$(property zuGevSvc.service ActiveState)" = inactive ]; }
trace() { in_machine journalctl -o cat --no-pager -u camera.service; }
# How often the camera's control privilege was given back.
releases() { trace | grep -c -- "WRITEREG id=[0-9]* \[0x00000A00\]=0x00000000"; }
released_more_than() { [ "$(releases)" -gt "$1" ]; }

boot() { machine_boot "$folder/machine" "$build" || exit 1; }

start_camera() {
    in_machine systemd-run --quiet --collect --unit=camera gevsim --address $camera --trace --no-input
    within 20 "the camera answers" in_machine gevctl -q discover --address $camera --wait 100
}

# A link, held by a user without any rights.
link_camera() {
    in_machine systemd-run --quiet --collect --unit=viewer --uid=nobody gevctl watch -c $camera
    within 20 "the camera is linked" camera_is_held
}
end_client() {
    in_machine systemctl kill -s KILL viewer.service
    in_machine systemctl stop viewer.service
    in_machine systemctl reset-failed viewer.service
} 2> /dev/null
camera_is_held() { in_machine gevctl -q --json reg read -c $camera 0x0A00 | grep -q '"value": *[1-9]'; }

step "packages"
rm -f "$build"/packages/*.deb
(cd "$build" && cpack -G DEB > "$folder/cpack.log" 2>&1) || { cat "$folder/cpack.log"; exit 1; }
daemon=$(ls "$build"/packages/zugevsvc_*.deb)
tools=$(ls "$build"/packages/zugevsvc-tools_*.deb)

step "boot"
boot
expect "" dpkg --install "$tools" "$daemon"

step "the package starts the services, for an account without rights"
within 30 "the service runs" is_active zuGevSvc.service || give_up "no service"
is_active zuLogSvc.service || fail "the log service does not run"
pid=$(property zuGevSvc.service MainPID)
[ "$(in_machine stat -c %U "/proc/$pid")" = zugevsvc ] || fail "the service runs as another user"
capabilities=$(in_machine sed -n 's/^CapEff:\t//p' "/proc/$pid/status")
[ "$capabilities" = 0000000000800000 ] || fail "the service has other capabilities than CAP_SYS_NICE: $capabilities"
[ "$(in_machine stat -c %a /dev/shm/Global.zuGevSvc)" = 666 ] || fail "not every user can open the shared object"
[ "$(property zuGevSvc.service StatusText)" = Running ] || fail "the service did not say that it runs"
expect "enabled" systemctl is-enabled zuGevSvc.service
expect "enabled" systemctl is-enabled zuLogSvc.service

step "hardening"
for unit in zuGevSvc zuLogSvc; do
    exposure=$(in_machine systemd-analyze security --no-pager $unit.service | sed -n 's/.*exposure level.*: \([0-9.]*\) .*/\1/p')
    echo "$unit: exposure level $exposure"
    [ -n "$exposure" ] && [ "${exposure/./}" -le 25 ] || fail "$unit is exposed more than 2.5"
    expect "" systemd-analyze verify --man=no "/usr/lib/systemd/system/$unit.service"
done

step "a client links a camera through it"
start_camera
link_camera
[[ $(in_machine ps -o ni= -L -p "$pid" | sort -n | head -n 1) -lt 0 ]] || fail "no thread got its priority"

step "stop while linked"
before=$(releases)
begin=$(date +%s%N)
expect "Stop Service successful" zuGevSvc --stop
took=$((($(date +%s%N) - begin) / 1000000))
echo "stopping took $took ms"
[ $took -le 3000 ] || fail "stopping took $took ms"
is_gone || fail "it still runs after --stop"
[ "$(property zuGevSvc.service Result)" = success ] || fail "it did not stop well: $(property zuGevSvc.service Result)"
within 20 "the camera is released" released_more_than "$before" || trace
end_client

step "stop when stopped, start, start when running"
expect "Stop Service successful" zuGevSvc --stop
expect "Start Service successful" zuGevSvc --start
is_active zuGevSvc.service || fail "it does not run after --start"
expect "Start Service failed" zuGevSvc --start
is_active zuGevSvc.service || fail "a second --start has stopped it"

step "a daemon in a terminal, of a user without rights, on what the service has left, and the other way round"
expect "Stop Service successful" zuGevSvc --stop
printed=$(printf x | in_machine setpriv --reuid=nobody --clear-groups zuGevSvc --execute) || fail "it ended with status $?"
[[ $printed != *already\ running* ]] || fail "it took itself for the second one"
in_machine rm /dev/shm/Global.zuGevSvc /dev/shm/Global.ZuGevSvc_Instance
printf x | in_machine setpriv --reuid=nobody --clear-groups zuGevSvc --execute > /dev/null || fail "it ended with status $?"
[ "$(in_machine stat -c %U /dev/shm/Global.zuGevSvc)" = nobody ] || fail "the object is not that of the other user"
expect "Start Service successful" zuGevSvc --start
expect "" gevctl -q reg read -c $camera 0x0A00

step "started and stopped more often than a crashing service may be"
for _ in 1 2 3 4 5 6 7 8 9 10 11 12; do
    expect "Stop Service successful" zuGevSvc --stop
    expect "Start Service successful" zuGevSvc --start
done

step "a second daemon, and the service's mode by hand"
expect "An instance of this application / service is already running on this system." zuGevSvc --execute
printed=$(in_machine zuGevSvc --svc 2>&1) || fail "--svc by hand ended with status $?"
[ -z "$printed" ] || fail "--svc by hand printed: $printed"

step "SIGHUP is an unknown control"
in_machine systemctl kill --kill-whom=main -s HUP zuGevSvc.service
expect "" gevctl -q status
is_active zuGevSvc.service || fail "SIGHUP has ended it"

step "kill -9"
pid=$(property zuGevSvc.service MainPID)
link_camera
in_machine kill -KILL "$pid"
restarted() { is_active zuGevSvc.service && [ "$(property zuGevSvc.service MainPID)" != "$pid" ]; }
within 30 "systemd starts it again" restarted
[ "$(property zuGevSvc.service NRestarts)" = 1 ] || fail "it was restarted $(property zuGevSvc.service NRestarts) times"
end_client
within 30 "a client is served again" in_machine gevctl -q reg read -c $camera 0x0A00

step "the journal has the lines"
for words in "Enter service" "Service loop starting" "Starting service loop" "Service loop terminating, shutdown Mgr" \
    "Service loop terminated"; do
    in_machine journalctl -o cat --no-pager -u zuLogSvc.service | grep -q -- "$words" || fail "no '$words' in the journal"
done

in_machine journalctl -o cat --no-pager -u zuLogSvc.service | grep "not running TimeCritical" &&
    fail "the heartbeat did not get its priority"

step "a packaged service that is deleted and installed"
expect "Install Service failed" zuGevSvc --install
expect "Delete Service successful" zuGevSvc --delete
is_active zuGevSvc.service || fail "deleting has stopped it"
expect "Delete Service failed" zuGevSvc --delete
expect "Stop Service successful" zuGevSvc --stop
expect "Start Service failed" zuGevSvc --start
expect "Stop Service failed" zuGevSvc --stop
expect "Install Service successful" zuGevSvc --install
expect "Install Service failed" zuGevSvc --install
expect "enabled" systemctl is-enabled zuGevSvc.service
[ ! -e "$folder/machine/upper/etc/systemd/system/zuGevSvc.service" ] || fail "the packaged unit was not used"
expect "Start Service successful" zuGevSvc --start

step "a user without rights"
expect "Stop Service failed" setpriv --reuid=nobody --clear-groups zuGevSvc --stop
expect "Delete Service failed" setpriv --reuid=nobody --clear-groups zuGevSvc --delete
is_active zuGevSvc.service || fail "anybody can stop it"
expect "" setpriv --reuid=nobody --clear-groups gevctl -q status

step "upgrade over the running service"
pid=$(property zuGevSvc.service MainPID)
expect "" dpkg --install "$daemon"
within 30 "it runs after the upgrade" is_active zuGevSvc.service
[ "$(property zuGevSvc.service MainPID)" != "$pid" ] || fail "the old program still runs after the upgrade"

step "a start that fails"
in_machine mkdir -p /run/systemd/system/zuGevSvc.service.d
in_machine sh -c 'printf "[Service]\nExecStart=\nExecStart=/bin/false\nRestart=no\n" > /run/systemd/system/zuGevSvc.service.d/broken.conf'
in_machine systemctl daemon-reload
expect "Stop Service successful" zuGevSvc --stop
expect "Start Service failed" zuGevSvc --start
in_machine rm -r /run/systemd/system/zuGevSvc.service.d
in_machine systemctl daemon-reload
expect "Start Service successful" zuGevSvc --start

step "boot: the log service comes first, and both come by themselves"
machine_halt
boot
within 30 "the service runs after the boot" is_active zuGevSvc.service
log_ready=$(property zuLogSvc.service ActiveEnterTimestampMonotonic)
started=$(property zuGevSvc.service ExecMainStartTimestampMonotonic)
[ "$log_ready" -gt 0 ] && [ "$log_ready" -le "$started" ] || fail "it started ($started) before the log service ($log_ready)"
in_machine journalctl -b -o cat --no-pager -u zuLogSvc.service | grep -q "Enter service" || fail "its first line got lost"

step "remove and purge"
expect "" dpkg --remove zugevsvc
is_gone || fail "removing has not stopped it"
in_machine test -e /etc/zugevsvc/zuLogSvc.json || fail "removing has taken the settings"
[ "$(property zuGevSvc.service LoadState)" != loaded ] || fail "the unit is still there"
expect "" dpkg --install "$daemon"
within 30 "it runs after it was installed again" is_active zuGevSvc.service
expect "" dpkg --purge zugevsvc
is_gone || fail "purging has not stopped it"
[ "$(property zuGevSvc.service LoadState)" = not-found ] || fail "the unit is still known after the purge"
left=$(in_machine find /etc /var/lib/systemd /var/log /usr/lib /usr/sbin /usr/share /dev/shm \
    \( -iname '*zugevsvc*' -o -iname '*zulogsvc*' \) ! -path '*/zugevsvc-tools*')
[ -z "$left" ] || fail "left after the purge: $left"

step "installed by hand, from a path with blanks"
program="/opt/zu gev  100%/zuGevSvc"
in_machine mkdir -p "/opt/zu gev  100%"
in_machine install "$build/bin/zuGevSvc" "$program"
expect "Start Service failed" "$program" --start
expect "Install Service successful" "$program" --install
expect "Install Service failed" "$program" --install
expect "enabled" systemctl is-enabled zuGevSvc.service
expect "Start Service successful" "$program" --start
pid=$(property zuGevSvc.service MainPID)
[ "$(in_machine readlink "/proc/$pid/exe")" = "$program" ] || fail "another program runs"
[ "$(in_machine stat -c %U "/proc/$pid")" = zugevsvc ] || fail "it runs as another user"
[ "$(in_machine cat "/proc/$pid/cmdline" | tr '\0' '|')" = "$program|-s|" ] ||
    fail "its command line is another: $(in_machine cat "/proc/$pid/cmdline" | tr '\0' '|')"
start_camera
expect "" gevctl -q reg read -c $camera 0x0A00
expect "Delete Service successful" "$program" --delete
is_active zuGevSvc.service || fail "deleting has stopped it"
in_machine test -e /etc/systemd/system/zuGevSvc.service && fail "the unit file is still there"
expect "Stop Service successful" "$program" --stop
is_gone || fail "it still runs"
expect "Stop Service failed" "$program" --stop
expect "Delete Service failed" "$program" --delete

step "installed by hand, where only root can reach the program"
in_machine install -D "$build/bin/zuGevSvc" /root/zu/zuGevSvc
expect "Install Service successful" /root/zu/zuGevSvc --install
expect "Start Service successful" /root/zu/zuGevSvc --start
pid=$(property zuGevSvc.service MainPID)
capabilities=$(in_machine sed -n 's/^CapEff:\t//p' "/proc/$pid/status")
[ "$capabilities" = 0000000000800000 ] || fail "as root it has other capabilities than CAP_SYS_NICE: $capabilities"
expect "Stop Service successful" /root/zu/zuGevSvc --stop
expect "Delete Service successful" /root/zu/zuGevSvc --delete

step "without a service manager"
in_machine systemctl stop dbus.service dbus.socket
expect "Install Service failed" "$program" --install
expect "Start Service failed" "$program" --start

if [ $failures -ne 0 ]; then
    in_machine journalctl --no-pager -b -n 200 -u zuGevSvc -u zuLogSvc -u init.scope
    echo "$failures failures"
    exit 1
fi
echo "all good"
