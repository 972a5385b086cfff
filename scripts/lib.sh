# Shared by the scripts beside it: where things are, Debian packages, building, running the tests of a build.
# Sourced, never run. Everything that is written goes below build/.
# shellcheck shell=bash disable=SC2034
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
logs=$root/build/logs
jobs=$(nproc)
cd "$root"
mkdir -p "$logs"

# What any of the builds needs with its tests; the shells are those the tool writes completion scripts for. The second
# compiler, the checkers and what else they have to see come on top where they are used.
build_packages=(g++ cmake ninja-build pkg-config python3 libuv1-dev libcli11-dev libspdlog-dev libtomlplusplus-dev nlohmann-json3-dev
    libgtest-dev zsh fish)
# The version is part of the name: layout and findings differ between versions.
check_packages=(abigail-tools clang-14 libclang-rt-14-dev clang-format-14 clang-tidy-14 cppcheck
    libbenchmark-dev)

die() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

as_root() {
    if ((EUID == 0)); then
        "$@"
    else
        command -v sudo >/dev/null || die "packages are missing, and neither root nor sudo is here: $*"
        sudo "$@"
    fi
}

installed() {
    [[ " $(dpkg-query -W -f '${db:Status-Status} ' "$1" 2>/dev/null)" == *" installed "* ]]
}

# Installs those of the given packages that are missing, and touches nothing when none is.
need() {
    local package missing=()
    if ! command -v dpkg-query >/dev/null; then
        printf 'This is no Debian system; expecting to find: %s\n' "$*" >&2
        return
    fi
    for package; do
        installed "$package" || missing+=("$package")
    done
    ((${#missing[@]})) || return 0
    printf 'Installing %s\n' "${missing[*]}"
    {
        as_root apt-get update -q
        as_root env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends "${missing[@]}"
    } </dev/null >"$logs/packages.log" 2>&1 || {
        tail -n 20 "$logs/packages.log" >&2
        die "packages could not be installed"
    }
}

# Runs a command with its output in a log of the given name, and shows the log's end when the command fails.
logged() {
    local log=$logs/$1.log
    shift
    "$@" </dev/null >"$log" 2>&1 && return
    tail -n 60 "$log" >&2
    printf '(all of it: %s)\n' "${log#"$root"/}" >&2
    return 1
}

# Configures and builds a preset, all of it or the given targets.
build() {
    local preset=$1
    shift
    logged "$preset-configure" cmake --preset "$preset" &&
        logged "$preset-build" cmake --build --preset "$preset" --parallel "$jobs" ${1:+--target "$@"}
}

# Runs the tests of a build: ctest's closing lines, and before them the output of the tests that failed. Results stay
# in build/logs/PRESET.xml. More arguments go to ctest.
run_tests() {
    local preset=$1 log=$logs/$1-tests.log status=0
    shift
    rm -f "$logs/$preset.xml"
    ctest --test-dir "build/$preset" --parallel "$jobs" --timeout 120 --no-tests=error --output-on-failure \
        --output-junit "$logs/$preset.xml" "$@" </dev/null >"$log" 2>&1 || status=$?
    if ((status)); then
        grep -vE '^ *(Start +[0-9]+:|[0-9]+/[0-9]+ Test +#[0-9]+:.* Passed )' "$log" | sed '/tests passed/,$d' >&2 || true
    fi
    grep -q 'tests passed' "$log" && sed -n '/tests passed/,$p' "$log"
    return "$status"
}

# Number behind an attribute of the result file's first element; 0 without a file.
result() {
    local number
    number=$(grep -m1 -oE "[[:space:]]$2=\"[0-9]+\"" "$logs/$1.xml" 2>/dev/null | grep -oE '[0-9]+') || true
    printf '%s' "${number:-0}"
}

# Starts a daemon on a port of the kernel's choice, with the given further arguments after the program, and waits until
# it serves. Sets daemon to its process id and exports what clients need to find it.
start_daemon() {
    local program=$1 line=
    shift
    coproc ready { exec "$program" --port 0 --ready-fd 3 "$@" 3>&1 >&2 </dev/null; }
    # shellcheck disable=SC2154 # the shell sets it with the line above
    daemon=$ready_PID
    read -r -t 10 line <&"${ready[0]}" || die "the daemon did not come up"
    [[ $line =~ port=([0-9]+) ]] || die "the daemon says '$line' instead of its port"
    export TAMBEK_ZEB_PROXY_PORT=${BASH_REMATCH[1]} TAMBEK_HOME=${TAMBEK_HOME:-/tmp}
}

# Ends a process that this script started, if it still runs; with force after ten seconds. Returns its exit code.
stop() {
    local tries=100
    kill "$1" 2>/dev/null || true
    while kill -0 "$1" 2>/dev/null && ((tries--)); do
        sleep 0.1
    done
    ((tries >= 0)) || kill -KILL "$1"
    wait "$1"
}
