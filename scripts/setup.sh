#!/bin/bash
# Makes a Debian 12 machine ready: installs the packages that are missing and creates the Wine prefix
# of this tree (build/wine). Run by people once and by test.sh every time: a second run does nothing,
# needs no network and takes well under a second.
#   --mutation  also what scripts/mutate.sh needs
#   --bench     also what the benchmarks need
set -euo pipefail
. "$(dirname "$0")/lib.sh"

# The one list of packages. Recommended packages are not installed: the list has everything that is needed.
packages=(
    g++                         # host build: the portable parts and their tests
    cmake                       # build
    ninja-build                 # build
    g++-mingw-w64-x86-64-posix  # cross compiler, with POSIX threads for std::mutex
    binutils-mingw-w64-x86-64   # linker, windres; objdump for the checks of the release
    wine                        # the commands wine, wineboot and wineserver
    wine64                      # the 64-bit loader and server behind them
    wine64-tools                # winegcc and winebuild, for the bridge to native PKCS#11 libraries
    libwine-dev                 # headers and import libraries for winegcc
    fonts-wine                  # the fonts that dialogs ask for
    xvfb                        # the screen that the dialog is tested on
    xauth                       # xvfb-run needs it
    xdotool                     # types into the dialog as a person would
    imagemagick                 # takes pictures of the dialog
    chromium                    # opens the page of "keywarden log --html" in its test
    softhsm2                    # a real PKCS#11 token for the tests
    opensc                      # pkcs11-tool, fills the token with keys
    openssl                     # independent judge of signatures and secrets, maker of certificates
    xxd                         # the demonstration compares keys and signatures as text
    googletest                  # test framework, as source
    libcli11-dev                # keywarden: arguments, header only
    nlohmann-json3-dev          # keywarden: --json, header only
    libz-mingw-w64-dev          # keywarden: zlib, for the ZIP file of a report
    jq                          # release: the bill of materials; tests: judge of what --json prints
    p11-kit                     # tests: serves a token over a socket, as a remote one
    p11-kit-modules             # tests: the client of that socket, a PKCS#11 library
    libnss3-tools               # tests: makes a database for NSS softoken, which comes with it
    swtpm                       # tests: a simulated TPM
    libtpm2-pkcs11-1            # tests: a TPM as a PKCS#11 token
    libtss2-tcti-swtpm0         # tests: the library's way to the simulated TPM
    libp11-kit-dev              # PKCS#11 header, independent check of the constants
    clang                       # fuzzing: the compiler with libFuzzer
    libclang-rt-14-dev          # fuzzing: libFuzzer and the sanitizers, as libraries
    lld                         # tests: links their programs quickly
    llvm-14                     # coverage: llvm-profdata and llvm-cov
    nsis                        # release: the installer
    wixl                        # release: the Windows Installer package
    msitools                    # release: msibuild, which completes that package
    zip                         # release: the archive
    unzip                       # tests: judges the ZIP file of a report
    osslsigncode                # release: signs the programs, and verifies signatures in the test
    clang-format                # layout of the sources
    clang-tidy                  # lint, with run-clang-tidy
    shellcheck                  # lint: the scripts
    codespell                   # lint: prose and comments
    yamllint                    # lint: the workflows
    python3                     # lint: the layers; codespell and run-clang-tidy are written in it too
    cppcheck                    # lint
    libssl-dev                  # certificates in place of Windows' own; lint and benchmarks: OpenSSL's codecs
    git                         # lint: which files changed
    procps                      # tests: ps and pgrep
    golang-go                   # tests: a TLS client for Windows, by Go's standard library
)

# Of no use to anything but the mutation check, which people run now and then.
mutationPackages=(
    python3-clang-14            # finds the places to change; libclang 14 is Debian 12's own
)

# Of no use to anything but the benchmarks and the counts of instructions.
benchPackages=(
    valgrind                    # callgrind counts instructions
    iproute2                    # network namespaces for a token behind a network
    socat                       # the token's server and the line to it
    opensc-pkcs11               # pkcs11-spy, which the traced call layer is compared with
    gnuplot-nox                 # draws the curves
)

missingPackages()
{
    local installed
    installed=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "${packages[@]}" 2>/dev/null |
        sed -n 's/^installed //p' | sort -u) || true
    comm -23 <(printf '%s\n' "${packages[@]}" | sort -u) <(printf '%s\n' "$installed")
}

# asRoot COMMAND...: a bare machine has root but no sudo, a person's machine the other way round.
asRoot()
{
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        echo "setup.sh: packages are missing; run it as root, or install sudo" >&2
        return 1
    fi
}

# aptGet ARGUMENTS...: apt-get without questions; shows a line for each package, the rest in the log.
aptGet()
{
    local log=$build/setup-apt.log
    if ! asRoot env DEBIAN_FRONTEND=noninteractive apt-get -y -o Dpkg::Use-Pty=0 "$@" 2>&1 |
        tee -a "$log" | sed -un 's/^Setting up \([^ ]*\) .*/    \1/p'; then
        tail -n 20 "$log" >&2
        echo "setup.sh: apt-get $1 failed; all of its output is in $log" >&2
        return 1
    fi
}

installPackages()
{
    local missing
    mapfile -t missing < <(missingPackages)
    if [ "${#missing[@]}" -eq 0 ]; then
        say "packages: all ${#packages[@]} are installed"
        return 0
    fi
    say "packages: ${#missing[@]} missing: ${missing[*]}"
    : >"$build/setup-apt.log"
    aptGet update || return 1
    say "packages: lists are up to date, installing"
    aptGet install --no-install-recommends "${missing[@]}" || return 1
    mapfile -t missing < <(missingPackages)
    if [ "${#missing[@]}" -ne 0 ]; then
        echo "setup.sh: still missing: ${missing[*]}" >&2
        return 1
    fi
    say "packages: installed"
}

# setRegistry KEY ARGUMENTS...
setRegistry()
{
    env -u DISPLAY wine reg add "$@" /f >>"$build/setup-wine.log" 2>&1
}

# fillPrefix: an empty folder becomes a prefix with the settings of the tests.
fillPrefix()
{
    # What an interrupted run left is not trusted. Nothing but a prefix is removed.
    if [ -e "$WINEPREFIX/system.reg" ]; then
        stopWine
        rm -rf "$WINEPREFIX"
    fi
    mkdir -p "$WINEPREFIX"
    # No display is needed yet, and none is to be remembered.
    env -u DISPLAY wineboot -i >"$build/setup-wine.log" 2>&1 || return 1
    # Without a window manager Wine waits two seconds for each dialog to be taken by one.
    setRegistry 'HKCU\Software\Wine\X11 Driver' /v Managed /d N || return 1
    # A test that crashes is to end, not to wait behind a dialog that says so.
    setRegistry 'HKCU\Software\Wine\WineDbg' /v ShowCrashDialog /t REG_DWORD /d 0 || return 1
    # With Wine's debugger in between, a crash can end with exit code 0 and pass for a success.
    setRegistry 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' \
        /v Debugger /t REG_SZ /d none || return 1
    wineserver -w # the registry is on disk once the server has ended
    grep -q '^"Managed"="N"' "$WINEPREFIX/user.reg" || {
        echo "the settings are not in $WINEPREFIX/user.reg" >>"$build/setup-wine.log"
        return 1
    }
}

# makePrefix: on a busy machine Wine's services can come too late for wineboot, so it may try a second time.
makePrefix()
{
    local stamp=$WINEPREFIX/keywarden-ready-2 # the number goes up when the settings above change
    if [ -e "$stamp" ]; then
        say "Wine prefix: ready in $WINEPREFIX"
        return 0
    fi
    say "Wine prefix: creating $WINEPREFIX"
    if ! fillPrefix; then
        cat "$build/setup-wine.log" >&2
        say "Wine prefix: failed, trying once more"
        fillPrefix || {
            cat "$build/setup-wine.log" >&2
            return 1
        }
    fi
    touch "$stamp"
    say "Wine prefix: ready"
}

case "$#:${1:-}" in
    0:) ;;
    1:--mutation) packages+=("${mutationPackages[@]}") ;;
    1:--bench) packages+=("${benchPackages[@]}") ;;
    *)
        echo "usage: scripts/setup.sh [--mutation | --bench]" >&2
        exit 2
        ;;
esac
mkdir -p "$build"
exec 9>"$build/setup.lock"
flock 9 # two runs in one tree wait for each other
installPackages
# The server that Wine leaves running must not inherit the lock.
makePrefix 9>&-
