# What the tests on a machine of their own have in common: BUILD-FOLDER [SANITIZER] as arguments, a machine in $folder, and
# the words for steps. For bash; a script sources it with its own arguments, after setting $programs to what it needs.
# Exit status 0 passed, 1 failed, 77 skipped.

set -u
build=$(cd "$1" && pwd)
sanitizer=${2:-}
. "$(dirname "${BASH_SOURCE[0]}")/machine.sh"

[ -z "$sanitizer" ] || machine_skip "the unit's confinement leaves no room for the $sanitizer sanitizer"
[ -n "${ZU_MACHINE_MOUNTS:-}" ] || machine_possible
machine_own_mounts "$0" "$@"
for program in $programs; do
    command -v "$program" > /dev/null || machine_skip "$program is missing, so there are no packages to install"
done

folder=$(mktemp -d)
trap 'machine_halt; umount -l "$folder"; rmdir "$folder"' EXIT
mount -t tmpfs tmpfs "$folder" || exit 1

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

# expect WORDS COMMAND...: runs it in the machine; what it prints must hold the words, and its status be 0. Leaves it in
# $printed.
printed=
expect() {
    local words=$1 status
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

# make_packages BUILD: four packages in its folder packages.
make_packages() {
    local log
    rm -f "$1"/packages/*.deb
    log=$(cd "$1" && cpack -G DEB 2>&1) || {
        echo "$log"
        exit 1
    }
}

finish() {
    if [ $failures -ne 0 ]; then
        in_machine journalctl --no-pager -b -n 200 -u zuGevSvc -u zuLogSvc -u init.scope
        echo "$failures failures"
        exit 1
    fi
    echo "all good"
    exit 0
}
