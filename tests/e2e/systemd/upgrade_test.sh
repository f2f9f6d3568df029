#!/usr/bin/env bash
# The packages over time, on a machine of their own: upgrades beside what an administrator has changed, the library as
# programs outside this tree use it, and a purge beside a daemon that doesn't come from the package.
# Usage: upgrade_test.sh BUILD-FOLDER [SANITIZER]. Exit status 0 passed, 1 failed, 77 skipped.
programs="cpack dpkg-shlibdeps dpkg-deb file"
. "$(dirname "$0")/steps.sh"

settings=/etc/zugevsvc/zuLogSvc.json
version=

# next_version [SCRIPT]: makes a package of the next version out of the latest one, after running the shell script in its unpacked folder.
count=0
next=
next_version() {
    local new="$folder/packages/new" name
    count=$((count + 1))
    version=1.0.$count-1
    rm -rf "$new"
    dpkg-deb -R "${next:-$daemon}" "$new"
    sed -i "s/^Version: .*/Version: $version/" "$new/DEBIAN/control"
    if [ $# -gt 0 ]; then
        (cd "$new" && eval "$1")
    fi
    next="$folder/packages/zugevsvc_$version.deb"
    dpkg-deb --root-owner-group -b "$new" "$next" > /dev/null
}
# upgrade [DPKG-OPTION...]: to what next_version has made.
upgrade() {
    expect "" dpkg "$@" --install "$next"
    [ "$(in_machine dpkg-query -W -f '${Version}' zugevsvc)" = "$version" ] || fail "version $version is not installed"
}
enabled_state() { in_machine systemctl is-enabled "$1" 2> /dev/null; }
main_pid() { property zuGevSvc.service MainPID; }

step "packages"
make_packages "$build"
mkdir "$folder/packages"
cp "$build"/packages/*.deb "$folder/packages/"
daemon=$(ls "$folder"/packages/zugevsvc_*.deb)
tools=$(ls "$folder"/packages/zugevsvc-tools_*.deb)
library=$(ls "$folder"/packages/libzugevclient[0-9]*.deb)
development=$(ls "$folder"/packages/libzugevclient-dev_*.deb)

step "boot"
machine_boot "$folder/machine" "$build" "$folder/packages" || exit 1
expect "" dpkg --install "$tools" "$daemon"
within 30 "the service runs" is_active zuGevSvc.service || give_up "no service"

step "changed settings outlive an upgrade"
in_machine sed -i 's/"level": "info"/"level": "debug"/' $settings
changed=$(in_machine cat $settings)
pid=$(main_pid)
next_version
upgrade
[ "$(in_machine cat $settings)" = "$changed" ] || fail "the settings were overwritten"
within 30 "it runs after the upgrade" is_active zuGevSvc.service
[ "$(main_pid)" != "$pid" ] || fail "the old program still runs after the upgrade"
next_version "sed -i 's/\"level\": \"warn\"/\"level\": \"err\"/' .$settings"
upgrade --force-confold
[ "$(in_machine cat $settings)" = "$changed" ] || fail "settings that the package has changed as well were overwritten"
in_machine grep -q '"err"' $settings.dpkg-dist || fail "the package's own settings are not to be seen"
within 30 "it runs after the upgrade" is_active zuGevSvc.service

step "a service that was only stopped is started by an upgrade"
in_machine systemctl stop zuGevSvc.service
next_version
upgrade
within 30 "it runs after the upgrade" is_active zuGevSvc.service

step "a disabled service stays disabled"
in_machine systemctl --quiet disable --now zuGevSvc.service
next_version
upgrade
[ "$(enabled_state zuGevSvc.service)" = disabled ] || fail "the upgrade has made it $(enabled_state zuGevSvc.service)"
is_active zuGevSvc.service && fail "the upgrade has started it"
is_active zuLogSvc.service || fail "the log service does not run"
in_machine systemctl --quiet enable --now zuGevSvc.service

step "a service that was deleted, and one that an administrator has masked, stay so"
expect "Stop Service successful" zuGevSvc --stop
expect "Delete Service successful" zuGevSvc --delete
in_machine systemctl stop zuLogSvc.service
in_machine systemctl --quiet mask zuLogSvc.service
next_version
upgrade
for unit in zuGevSvc zuLogSvc; do
    [ "$(enabled_state $unit.service)" = masked ] || fail "the upgrade has made $unit $(enabled_state $unit.service)"
    is_active $unit.service && fail "the upgrade has started $unit"
done
expect "Start Service failed" zuGevSvc --start
in_machine systemctl --quiet unmask zuLogSvc.service
expect "Install Service successful" zuGevSvc --install
expect "Start Service successful" zuGevSvc --start
is_active zuLogSvc.service || fail "the log service is not started with it"

step "the library and its development files, from /usr"
expect "" dpkg --install "$library" "$development"
expect "libzugevclient.so.1" ldconfig -p
example=/usr/share/doc/libzugevclient-dev/examples/example.cpp
in_machine mkdir -p /opt/user
expect "" sh -c "c++ -std=c++20 $example -o /opt/user/by-pkg-config \$(pkg-config --cflags --libs zugevclient)"
in_machine tee /opt/user/CMakeLists.txt > /dev/null << EOT
cmake_minimum_required(VERSION 3.22)
project(user LANGUAGES CXX)
find_package(zuGevClient 1.0 REQUIRED)
add_executable(by-cmake $example)
target_link_libraries(by-cmake PRIVATE zuGev::client)
EOT
expect "" cmake -S /opt/user -B /opt/user/build
expect "" cmake --build /opt/user/build
in_machine systemd-run --quiet --collect --unit=camera gevsim --address 127.0.14.40 --no-input
within 20 "the camera answers" in_machine gevctl -q discover --address 127.0.14.40 --wait 100
for program in /opt/user/by-pkg-config /opt/user/build/by-cmake; do
    in_machine readelf -d "$program" | grep -q 'NEEDED.*libzugevclient\.so\.1\]' || fail "$program doesn't use the library"
    expect "Model:" timeout 60 "$program" 127.0.14.40
done
in_machine systemctl stop camera.service

step "purge beside a daemon and a log service that don't come from the package"
in_machine install -D -t /opt/own /usr/sbin/zuGevSvc /usr/sbin/zuLogSvc
in_machine systemctl stop zuGevSvc.service zuLogSvc.service
in_machine systemd-run --quiet --collect --unit=own-log --uid=nobody /opt/own/zuLogSvc
in_machine systemd-run --quiet --collect --unit=own-daemon --uid=nobody /opt/own/zuGevSvc --execute
within 20 "the other daemon serves" in_machine gevctl -q status
is_locked() { in_machine sh -c 'test -f "$1" && ! (flock -n 9) 9< "$1"' sh "/dev/shm/Global.$1"; }
within 20 "the other daemon holds its place" is_locked ZuGevSvc_Instance
within 20 "the other log service holds its place" is_locked zuLogSvc_Instance
expect "still runs" dpkg --purge zugevsvc
for name in zuGevSvc ZuGevSvc_Instance zuLogSvcConnectionInfo zuLogSvc_Instance; do
    in_machine test -e "/dev/shm/Global.$name" || fail "the purge has taken $name from the other daemon"
done
expect "" gevctl -q status
expect "" dpkg --install "$daemon"
in_machine systemctl stop own-daemon.service own-log.service
expect "" dpkg --purge zugevsvc
[[ $printed != *"still runs"* ]] || fail "the purge takes a daemon that has ended for one that runs"
left=$(in_machine find /dev/shm -name 'Global.*')
[ -z "$left" ] || fail "left after the purge: $left"

finish
