#!/usr/bin/env bash
# The service on a machine of its own: packages, service control, a linked camera, a kill, a boot, removal.
# Usage: service_test.sh BUILD-FOLDER [SANITIZER]. Exit status 0 passed, 1 failed, 77 skipped.
programs="cpack dpkg-shlibdeps file"
. "$(dirname "$0")/steps.sh"

camera=127.0.14.40
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
make_packages "$build"
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

step "limits and order"
[ "$(in_machine sed -n 's/^Max open files *//p' "/proc/$pid/limits" | tr -s ' ')" = "16384 16384 files " ] ||
    fail "the limit of descriptors is another: $(in_machine grep "Max open files" "/proc/$pid/limits")"
for unit in network.target zuLogSvc.service; do
    [[ " $(property zuGevSvc.service After) " = *" $unit "* ]] || fail "it is not ordered after $unit"
done
[ "$(property zuGevSvc.service TimeoutStopUSec)" = 30min ] || fail "it has too little time to stop"

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

# Cameras of their own, each with a client; many_stop leaves in $took how long a stop took, in milliseconds.
many="1 2 3 4 5 6 7 8"
many_link() {
    local number
    for number in $many; do
        in_machine systemctl --quiet is-active "many-camera-$number" ||
            in_machine systemd-run --quiet --collect --unit="many-camera-$number" \
                gevsim --address "127.0.14.$((50 + number))" --trace --no-input
        in_machine systemd-run --quiet --collect --unit="many-viewer-$number" --uid=nobody \
            gevctl watch -c "127.0.14.$((50 + number))"
    done
    for number in $many; do
        within 30 "camera $number is linked" many_is_held "$number"
    done
}
many_is_held() { in_machine gevctl -q --json reg read -c "127.0.14.$((50 + $1))" 0x0A00 | grep -q '"value": *[1-9]'; }
many_stop() {
    local begin
    begin=$(date +%s%N)
    expect "" "$@"
    took=$((($(date +%s%N) - begin) / 1000000))
    echo "stopping took $took ms"
    [ "$(property zuGevSvc.service Result)" = success ] || fail "it did not stop well: $(property zuGevSvc.service Result)"
    [ "$(property zuGevSvc.service ExecMainStatus)" = 0 ] || fail "it ended with $(property zuGevSvc.service ExecMainStatus)"
    in_machine systemctl kill -s KILL "many-viewer-*"
    in_machine systemctl stop "many-viewer-*"
    in_machine systemctl reset-failed "many-viewer-*"
} 2> /dev/null

step "stop with several clients linked"
expect "Start Service successful" zuGevSvc --start
many_link
many_stop zuGevSvc --stop
[[ $printed = *"Stop Service successful" ]] || fail "--stop printed: $printed"
[ $took -le 3000 ] || fail "stopping took $took ms"
many_is_released() {
    in_machine journalctl -o cat --no-pager -u "many-camera-$1" | grep -q -- "WRITEREG id=[0-9]* \[0x00000A00\]=0x00000000"
}
for number in $many; do
    within 20 "camera $number is released" many_is_released "$number"
done

step "stop with cameras that don't answer"
expect "Start Service successful" zuGevSvc --start
many_link
in_machine systemctl kill -s STOP "many-camera-*"
many_stop systemctl stop zuGevSvc.service
in_machine systemctl kill -s KILL "many-camera-*"

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

step "another daemon in its place"
expect "Stop Service successful" zuGevSvc --stop
in_machine systemd-run --quiet --collect --unit=by-hand zuGevSvc --execute
within 20 "the other one serves" in_machine gevctl -q status
expect "Start Service failed" zuGevSvc --start
says_why() { in_machine systemctl status zuGevSvc.service | grep -q "Another instance is already running on this system"; }
within 20 "the state of the service says why" says_why
in_machine systemctl stop by-hand.service
in_machine systemctl reset-failed zuGevSvc.service
in_machine systemctl restart zuGevSvc.service
[ "$(property zuGevSvc.service StatusText)" = Running ] || fail "the service does not run again"

step "a process of another service is not the service"
expect "Stop Service successful" zuGevSvc --stop
expect "ended 0" systemd-run --quiet --collect --pipe --wait -p Type=notify -p NotifyAccess=all -p TimeoutStartSec=30 \
    sh -c 'zuGevSvc --svc; echo "ended $?"; systemd-notify --ready; sleep 0.1'
[ "$printed" = "ended 0" ] || fail "it printed: $printed"
expect "Start Service successful" zuGevSvc --start

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
[ "$(property zuGevSvc.service FragmentPath)" = /lib/systemd/system/zuGevSvc.service ] ||
    [ "$(property zuGevSvc.service FragmentPath)" = /usr/lib/systemd/system/zuGevSvc.service ] ||
    fail "the packaged unit was not used"
[ ! -e "$folder/machine/upper/etc/systemd/system/zuGevSvc.service" ] || fail "the packaged unit was not used"
expect "Start Service successful" zuGevSvc --start

step "an administrator's mask, and an administrator's own unit"
own=/etc/systemd/system/zuGevSvc.service
is_masked() { [ "$(property zuGevSvc.service LoadState)" = masked ]; }
in_machine systemctl --quiet mask zuGevSvc.service
expect "Install Service failed" zuGevSvc --install
is_masked || fail "an installation that failed has undone the mask"
in_machine systemctl --quiet unmask zuGevSvc.service
in_machine systemctl --quiet disable zuGevSvc.service
in_machine systemctl --quiet mask --runtime zuGevSvc.service
expect "Install Service failed" zuGevSvc --install
is_masked || fail "a mask for this boot is gone"
in_machine systemctl --quiet unmask --runtime zuGevSvc.service
for name in $own.bak $own.bak2; do
    in_machine sh -c "sed 's/^RestartSec=1/RestartSec=3/' /usr/lib/systemd/system/zuGevSvc.service > $own"
    in_machine systemctl daemon-reload
    expect "Delete Service successful" zuGevSvc --delete
    in_machine grep -qx RestartSec=3 "$name" || fail "an administrator's own unit is gone"
    is_masked || fail "the packaged unit is not masked"
    expect "Install Service successful" zuGevSvc --install
done
in_machine rm $own.bak $own.bak2

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

step "a program that says something while the account is made"
program="/opt/zu gev  100%/zuGevSvc"
in_machine userdel zugevsvc
in_machine sh -c 'printf "#!/bin/sh\necho noise\necho noise >&2\nexec /usr/bin/systemd-sysusers \"\$@\"\n" > /usr/sbin/systemd-sysusers'
in_machine chmod 755 /usr/sbin/systemd-sysusers
in_machine install -D "$build/bin/zuGevSvc" "$program"
expect "Install Service successful" "$program" --install
[[ $printed = *$'\n\nInstall Service successful' ]] || fail "it printed: $printed"
[[ $printed != *noise* ]] || fail "the other program was heard: $printed"
expect "" getent passwd zugevsvc
in_machine rm /usr/sbin/systemd-sysusers
expect "Delete Service successful" "$program" --delete

step "programs that can't be registered"
refused() {
    local program=$1 why=$2
    in_machine install "$build/bin/zuGevSvc" "$program"
    expect "Install Service failed" "$program" --install
    in_machine test -e $own && fail "the unit file stays though $why"
    [ "$(property zuGevSvc.service LoadState)" = not-found ] || fail "the unit is there though $why"
    [ -z "$(in_machine find /etc/systemd/system -name 'zuGevSvc*')" ] || fail "something stays though $why"
}
for name in "it's" 'a"b' 'a\b' $'a\001b' $'a\nb' $'a\377b'; do
    in_machine mkdir "/opt/$name"
    refused "/opt/$name/zuGevSvc" "systemd can't run it"
done
in_machine mkdir -p /home/someone/bin
in_machine chown 12345 /home/someone
in_machine chmod 700 /home/someone
refused /home/someone/bin/zuGevSvc "somebody else could replace it"
in_machine mkdir -p /run/systemd/system/zuGevSvc.service.d
in_machine sh -c 'printf "[Service]\nExecStart=\n" > /run/systemd/system/zuGevSvc.service.d/broken.conf'
in_machine systemctl daemon-reload
expect "Install Service failed" "$program" --install
in_machine test -e $own && fail "a unit file stays that could not be loaded"
in_machine rm -r /run/systemd/system/zuGevSvc.service.d

step "a registration that is of no use can be taken off"
printf '[Service]\nExecStart="/opt/it'"'"'s/zuGevSvc" -s\n[Install]\nWantedBy=multi-user.target\n' |
    in_machine tee $own > /dev/null
in_machine systemctl daemon-reload
[ "$(property zuGevSvc.service LoadState)" = bad-setting ] || fail "systemd takes it: $(property zuGevSvc.service LoadState)"
expect "Install Service failed" "$program" --install
expect "Start Service failed" "$program" --start
expect "Stop Service successful" "$program" --stop
expect "Delete Service successful" "$program" --delete
[ "$(property zuGevSvc.service LoadState)" = not-found ] || fail "it is still there"
in_machine rm $own.bak

step "installed by hand, from a path with blanks"
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
[ -z "$(in_machine find /etc/systemd/system -name 'zuGevSvc*')" ] || fail "the unit file is still there"
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

finish
