#!/usr/bin/env bash
# Installs under a prefix of the test's own and uses what is there; builds the packages and has lintian look at them.
# Usage: packages_test.sh BUILD-FOLDER [SANITIZER]. Exit status 0 passed, 1 failed, 77 skipped.
set -u
build=$(cd "$1" && pwd)
sanitizer=${2:-}
if [ -n "$sanitizer" ]; then
    echo "SKIPPED: nobody installs a build with the $sanitizer sanitizer"
    exit 77
fi

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
failures=0
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}
quietly() {
    "$@" > "$folder/log" 2>&1 || {
        fail "$*"
        cat "$folder/log"
    }
}

prefix="$folder/pre fix"
quietly cmake --install "$build" --prefix "$prefix"
for file in sbin/zuGevSvc sbin/zuLogSvc bin/gevctl bin/gevsim etc/zugevsvc/zuLogSvc.json \
    lib/systemd/system/zuGevSvc.service lib/systemd/system/zuLogSvc.service lib/sysusers.d/zugevsvc.conf \
    include/zugevclient/client/GevClient.h include/zugevclient/features/CameraFeatures.h \
    include/zugevclient/features/Features.h include/zugevclient/features/FeatureTypes.h share/man/man8/zuGevSvc.8.gz share/man/man8/zuLogSvc.8.gz \
    share/man/man1/gevctl.1.gz share/man/man1/gevsim.1.gz share/bash-completion/completions/gevctl; do
    [ -s "$prefix/$file" ] || fail "$file is not installed"
done
grep -qxF "ExecStart=\"$prefix/sbin/zuGevSvc\" -s" "$prefix/lib/systemd/system/zuGevSvc.service" ||
    fail "the unit does not run the installed program"

# Settings that are there already are the administrator's.
echo '{}' > "$prefix/etc/zugevsvc/zuLogSvc.json"
quietly cmake --install "$build" --prefix "$prefix"
[ "$(cat "$prefix/etc/zugevsvc/zuLogSvc.json")" = '{}' ] || fail "a second installation has overwritten the settings"

# A relative prefix is meant from the folder in which the command runs; units and the pkg-config file need absolute paths.
(cd "$folder" && quietly cmake --install "$build" --prefix rela/tive)
relative="$(cd "$folder" && pwd -P)/rela/tive"
for service in zuGevSvc zuLogSvc; do
    grep -q "^ExecStart=$relative/sbin/$service " "$relative/lib/systemd/system/$service.service" ||
        fail "with a relative prefix: $(grep ExecStart= "$relative/lib/systemd/system/$service.service")"
done
grep -qF -- "--config $relative/etc/zugevsvc/zuLogSvc.json" "$relative/lib/systemd/system/zuLogSvc.service" ||
    fail "with a relative prefix the log service finds no settings"
grep -qxF "prefix=$relative" "$(find "$relative" -name zugevclient.pc)" || fail "with a relative prefix pkg-config finds nothing"

# The root folder as the prefix, here below another.
DESTDIR="$folder/root" quietly cmake --install "$build" --prefix /
grep -qxF "ExecStart=/sbin/zuGevSvc -s" "$folder/root/lib/systemd/system/zuGevSvc.service" ||
    fail "with the prefix /: $(grep ExecStart= "$folder/root/lib/systemd/system/zuGevSvc.service")"
[ -s "$folder/root/etc/zugevsvc/zuLogSvc.json" ] || fail "with the prefix / there are no settings"

if command -v man > /dev/null; then
    for page in "$prefix"/share/man/man*/*.gz; do
        warnings=$(man --warnings -l "$page" 2>&1 > /dev/null)
        [ -z "$warnings" ] || fail "$page: $warnings"
    done
fi

# Each option that a program has is in its man page and in its completion.
check_options() {
    local program=$1 page=$2 option
    shift 2
    for option in $("$@" 2>&1 | grep -oE -- '(^| |,)--[a-z][a-z-]+' | tr -d ' ,' | sort -u); do
        [ "$option" = --help-all ] && continue
        zcat "$page" | sed 's/\\-/-/g' | grep -q -- "$option\b" || fail "$option is not in the man page of $program"
        grep -q -- "$option\b" "$prefix/share/bash-completion/completions/$program" ||
            fail "$option is not in the completion of $program"
    done
}
check_options zuGevSvc "$prefix/share/man/man8/zuGevSvc.8.gz" "$prefix/sbin/zuGevSvc" --help
check_options zuLogSvc "$prefix/share/man/man8/zuLogSvc.8.gz" "$prefix/sbin/zuLogSvc" --help
check_options gevctl "$prefix/share/man/man1/gevctl.1.gz" "$prefix/bin/gevctl" --help-all
check_options gevsim "$prefix/share/man/man1/gevsim.1.gz" "$prefix/bin/gevsim" --help

complete_with() { bash -c 'source "$1"; COMP_WORDS=("${@:3}"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "$2"; echo "${COMPREPLY[*]}"' \
    bash "$prefix/share/bash-completion/completions/$1" "_$1" "$@"; }
[ "$(complete_with gevctl tim)" = timeouts ] || fail "no completion of a command: $(complete_with gevctl tim)"
[ "$(complete_with gevctl mem r)" = read ] || fail "no completion of a second word"
[ "$(complete_with gevctl feature de)" = describe ] || fail "no completion of a feature's command"
[ "$(complete_with gevctl --visibility g)" = guru ] || fail "no completion of a visibility"
[ "$(complete_with gevctl -a ex)" = exclusive ] || fail "no completion of a value"
[ "$(complete_with zuGevSvc --inst)" = --install ] || fail "no completion of an option"

# A program of somebody else builds against it, both ways.
libdir=$(dirname "$(find "$prefix" -name libzugevclient.so)")
mkdir "$folder/user"
cp "$prefix"/share/doc/libzugev*-dev/examples/*.cpp "$folder/user/"
cat > "$folder/user/CMakeLists.txt" << 'EOT'
cmake_minimum_required(VERSION 3.22)
project(user LANGUAGES CXX)
find_package(zuGevClient 1.0 REQUIRED)
find_package(zuGevFeatures 1.0 REQUIRED)
add_executable(user example.cpp)
target_link_libraries(user PRIVATE zuGev::client)
add_executable(features features.cpp)
target_link_libraries(features PRIVATE zuGev::features)
EOT
quietly cmake -S "$folder/user" -B "$folder/user/build" -DCMAKE_PREFIX_PATH="$prefix"
quietly cmake --build "$folder/user/build"
for example in user features; do
    status=0
    LD_LIBRARY_PATH=$libdir "$folder/user/build/$example" > /dev/null 2>&1 || status=$?
    [ $status -eq 2 ] || fail "the example $example ended with status $status and not with that of its usage"
done
export PKG_CONFIG_PATH="$libdir/pkgconfig"
eval "quietly c++ -std=c++20 \"$folder/user/example.cpp\" -o \"$folder/user/by-pkg-config\" $(pkg-config --cflags --libs zugevclient)"
readelf -d "$folder/user/by-pkg-config" | grep -q 'NEEDED.*libzugevclient\.so\.1\]' || fail "the library has another soname"
eval "quietly c++ -std=c++20 \"$folder/user/features.cpp\" -o \"$folder/user/features-by-pkg-config\" $(pkg-config --cflags --libs zugevfeatures)"
readelf -d "$folder/user/features-by-pkg-config" | grep -q 'NEEDED.*libzugevfeatures\.so\.1\]' ||
    fail "the features library has another soname"
readelf -d "$libdir/libzugevfeatures.so" | grep -q NODELETE || fail "the features library can be unloaded"
readelf -d "$libdir/libzugevclient.so" | grep -q 'NEEDED.*\(aravis\|libzip\|libxml2\|glib\)' &&
    fail "the client library needs what only the features need"
others=$(nm -DC --defined-only "$libdir/libzugevfeatures.so" |
    sed -E 's/^[0-9a-f]+ . //; s/^(typeinfo for|typeinfo name for|vtable for) //' |
    grep -v -E '^(zuGevFeatures::openFeatures\(|zuGevFeatures::FeatureError@|zugevfeatures_open_1@|ZUGEVFEATURES_1$)')
[ -z "$others" ] || fail "the features library shows: $others"

# Nothing but the client's own names can be seen in the library.
others=$(nm -DC --defined-only "$libdir/libzugevclient.so" |
    sed -E 's/^[0-9a-f]+ . //; s/^(typeinfo for|typeinfo name for|vtable for|guard variable for) //' |
    grep -v -E '^(zuGevClient::|ZUGEVCLIENT_1$)')
[ -z "$others" ] || fail "the library shows: $others"
nm -DC --defined-only "$libdir/libzugevclient.so" | grep -q 'zuIPCPipe\|zuLogging\|zuPlatform\|::Impl::' &&
    fail "the library shows its inside"
nm -DC --defined-only "$libdir/libzugevclient.so" | grep -q 'zuGevClient::Connection::readRegister' ||
    fail "the library hides what it offers"

for program in dpkg-shlibdeps file lintian; do
    command -v "$program" > /dev/null && continue
    echo "SKIPPED: $program is missing, so the packages were not looked at"
    [ $failures -eq 0 ] && exit 77
    exit 1
done
rm -f "$build"/packages/*.deb
(cd "$build" && quietly cpack -G DEB)
[ "$(ls "$build"/packages/*.deb | wc -l)" = 6 ] || fail "there are not six packages"
dpkg-deb -f "$build"/packages/libzugevfeatures1_*.deb Depends | grep -q libaravis || fail "the features package does not depend on libaravis"
for package in zugevsvc_ libzugevclient1_ zugevsvc-tools_; do
    dpkg-deb -f "$build/packages/$package"*.deb Depends | grep -q libaravis && fail "$package depends on libaravis"
done
dpkg-deb -f "$build"/packages/zugevsvc-tools_*.deb Recommends | grep -q libzugevfeatures1 || fail "gevctl's package does not recommend the features"
lintian --allow-root --fail-on error --suppress-tags initial-upload-closes-no-bugs "$build"/packages/*.deb ||
    fail "lintian finds errors"

[ $failures -eq 0 ] && echo "all good"
exit $((failures > 0))
