# A machine of the test's own: systemd as the first process of new namespaces, on a copy of this system that is thrown
# away. Nothing in it reaches the real machine: files are an overlay in memory, and the network is a loopback only.
# For bash; source it. Exit status 77 means that this machine doesn't permit it.

machine_unshare=
machine_init=
machine_folder=

machine_skip() {
    echo "SKIPPED: $*"
    exit 77
}

# machine_possible: ends the test as skipped where namespaces and mounts aren't permitted or a program is missing.
machine_possible() {
    local program
    [ "$(id -u)" = 0 ] || machine_skip "a systemd of its own needs root"
    for program in unshare nsenter pivot_root setpriv; do
        command -v "$program" > /dev/null || machine_skip "$program is missing"
    done
    [ -x /lib/systemd/systemd ] || machine_skip "systemd isn't installed"
    [ -S /run/dbus/system_bus_socket ] || [ -e /lib/systemd/system/dbus.socket ] || machine_skip "dbus isn't installed"
    unshare -fpmiuCn --mount-proc true 2> /dev/null || machine_skip "new namespaces aren't permitted"
    local probe
    probe=$(mktemp -d)
    if ! unshare -m bash -c '
        set -e
        mount --make-rprivate /
        mount -t tmpfs tmpfs "$1"
        mkdir "$1/upper" "$1/work" "$1/root"
        mount -t overlay overlay -o "lowerdir=/,upperdir=$1/upper,workdir=$1/work" "$1/root"' bash "$probe" \
        2> /dev/null; then
        rmdir "$probe"
        machine_skip "mounts aren't permitted"
    fi
    rmdir "$probe"
}

# machine_own_mounts SCRIPT ARGUMENT...: goes on with the script in a mount namespace of its own, so that no mount is left
# however it ends. The first call doesn't return, the second does nothing.
machine_own_mounts() {
    [ -n "${ZU_MACHINE_MOUNTS:-}" ] && return
    ZU_MACHINE_MOUNTS=1 exec unshare -m --propagation private -- "$@"
}

# machine_boot FOLDER [BIND...]: boots to multi-user.target. FOLDER keeps what the machine writes, so that it can be
# booted again; the folders BIND are seen by it, read-only.
machine_boot() {
    machine_folder=$1
    shift
    mkdir -p "$machine_folder/upper" "$machine_folder/work" "$machine_folder/root"
    setpriv --pdeathsig KILL unshare -fpmiuCn --mount-proc --kill-child -- bash -c "$(declare -f machine_first_process); machine_first_process \"\$@\"" \
        bash "$machine_folder" "$@" > "$machine_folder/console.log" 2>&1 &
    machine_unshare=$!
    local limit=$((SECONDS + 90)) state=
    until [ "$state" = running ] || [ "$state" = degraded ]; do
        if [ $SECONDS -ge $limit ] || ! kill -0 "$machine_unshare" 2> /dev/null; then
            echo "the machine did not boot ($state):"
            tail -n 50 "$machine_folder/console.log"
            return 1
        fi
        sleep 0.2
        machine_init=$(cat "/proc/$machine_unshare/task/$machine_unshare/children" 2> /dev/null | cut -d' ' -f1)
        [ -n "$machine_init" ] && state=$(in_machine systemctl is-system-running 2> /dev/null)
    done
    return 0
}

# Runs as the first process of the namespaces and becomes systemd.
machine_first_process() {
    set -e
    local folder=$1 root=$1/root bind node
    shift
    mount --make-rprivate /
    mount -t overlay overlay -o "lowerdir=/,upperdir=$folder/upper,workdir=$folder/work" "$root"
    mount -t proc proc "$root/proc"
    mount -o bind,ro "$root/proc/sys" "$root/proc/sys"
    mount -t sysfs -o ro sysfs "$root/sys"
    mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
    mount -t tmpfs -o mode=755 tmpfs "$root/dev"
    for node in null zero full random urandom tty; do
        : > "$root/dev/$node"
        mount --bind "/dev/$node" "$root/dev/$node"
    done
    mkdir "$root/dev/pts" "$root/dev/shm"
    mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
    ln -s pts/ptmx "$root/dev/ptmx"
    ln -s /proc/self/fd "$root/dev/fd"
    mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
    mount -t tmpfs -o mode=755 tmpfs "$root/run"
    mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"
    for bind in "$@"; do
        mkdir -p "$root$bind"
        mount --bind "$bind" "$root$bind"
        mount -o remount,bind,ro "$root$bind"
    done
    # Only what this test is about starts with the machine.
    if [ ! -e "$root/etc/zu-machine" ]; then
        rm -rf "$root"/etc/systemd/system/*.wants "$root/etc/fstab"
        rm -f "$root"/lib/systemd/system/multi-user.target.wants/*
        rm -f "$root/usr/sbin/policy-rc.d" # as images have it, against services that packages start
        : > "$root/etc/zu-machine"
        : > "$root/etc/fstab"
        tr -d - < /proc/sys/kernel/random/uuid > "$root/etc/machine-id"
    fi
    mkdir -p "$root/run/systemd/system"
    for node in systemd-udevd systemd-udev-trigger systemd-timesyncd systemd-networkd systemd-resolved \
        systemd-random-seed systemd-binfmt systemd-modules-load ssh cron; do
        ln -s /dev/null "$root/run/systemd/system/$node.service"
    done
    printf '[Unit]\nRequires=dbus.socket\nAfter=dbus.socket\n' > "$root/run/systemd/system/zu-bus.target"
    mkdir -p "$root/run/systemd/system/multi-user.target.wants"
    ln -s ../zu-bus.target "$root/run/systemd/system/multi-user.target.wants/zu-bus.target"
    cd "$root"
    pivot_root . .
    umount -l .
    cd /
    exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin container=zu-test \
        /lib/systemd/systemd --system --unit=multi-user.target --show-status=0
}

# in_machine COMMAND...: runs a command in it, as root, with a clean environment.
in_machine() {
    nsenter -t "$machine_init" -m -p -i -u -C -n -r -w -- env -i \
        PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive "$@"
}

# machine_halt: ends it and everything in it, by the id of the process that holds its namespaces.
machine_halt() {
    [ -n "$machine_unshare" ] || return 0
    kill -KILL "$machine_unshare" 2> /dev/null
    wait "$machine_unshare" 2> /dev/null
    machine_unshare=
    machine_init=
}
