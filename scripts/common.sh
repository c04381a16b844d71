# Read by ./check and ./run: the Debian packages that they need, how to become root, and how they tell
# what they do. They set `log`, the file that takes all that a step says.
# shellcheck shell=bash disable=SC2034 # its readers use what it sets

# To build the agent and to show it at work.
runPackages=(
    cmake g++ ninja-build pkgconf
    libcap-ng-dev libcli11-dev libfmt-dev libmicrohttpd-dev libmnl-dev libtomlplusplus-dev nlohmann-json3-dev
    iproute2 python3
)

# To build everything, and to check it.
checkPackages=(
    "${runPackages[@]}"
    libgtest-dev
    clang clang-format clang-tidy git libclang-rt-dev lld python3-jsonschema python3-prometheus-client shellcheck smcroute
)

# Users other than root may lack these, and iproute2 lies there.
PATH=$PATH:/usr/sbin:/sbin

asRoot() {
    if [ "$EUID" = 0 ]; then "$@"; else sudo "$@"; fi
}

# Prints those of the packages named that are not installed.
missingPackages() {
    local installed
    installed=$(dpkg-query -W -f '${db:Status-Abbrev} ${Package}\n' "$@" 2>/dev/null |
        sed -n 's/^ii *//p') || true
    comm -23 <(printf '%s\n' "$@" | sort -u) <(sort -u <<<"$installed")
}

# Runs a command as one step: a line with its name and how long it took, its output in the log. That
# part of the log is shown if it fails, which ends the script.
step() {
    current=$1
    logged=$(stat -c %s "$log")
    local begun=$SECONDS
    shift
    printf '%s ... ' "$current" >&2
    "$@" >>"$log" 2>&1 </dev/null
    printf '%d s\n' $((SECONDS - begun)) >&2
    current=
}

# What the script's end says of the step that it fails in, where the script's own errors go: a step
# ends the script from within, with its output in the log.
endOfScript() {
    local status=$?
    [ $status != 0 ] && [ -n "${current:-}" ] || return 0
    exec 2>&3
    echo "failed" >&2
    [ $status = 130 ] || tail -c "+$((logged + 1))" "$log" >&2
    echo "${0##*/}: failed: $current (all output is in $log)" >&2
}

# Begins the log, and has the end of the script looked at.
beginLog() {
    log=$1
    exec 3>&2
    mkdir -p "$(dirname "$log")"
    : >"$log"
    trap endOfScript EXIT
}

# What installing these packages takes, in apt's own words.
installationSize() {
    LC_ALL=C apt-get install --assume-no --no-install-recommends -o Debug::NoLocking=true "$@" 2>&1 |
        sed -n 's/^Need to get \(.*\) of archives\.$/  to fetch: \1/p
                s/^After this operation, \(.*\) of additional disk space will be used\.$/  on disk: \1/p' || true
}

# Installs those of the packages named that are missing; asks apt for nothing if none is. Says first
# what it does and how long all takes, `$1`.
installPackages() {
    local time=$1 missing
    shift
    mapfile -t missing < <(missingPackages "$@")
    if [ "${#missing[@]}" = 0 ]; then
        [ -d "$(dirname "$log")/release" ] || echo "With the first build this takes $time." >&2
        return
    fi
    if [ "$EUID" != 0 ] && ! command -v sudo >/dev/null; then
        echo "These Debian packages are missing, and without sudo only root can install them:" >&2
        echo "  apt-get install --no-install-recommends ${missing[*]}" >&2
        exit 1
    fi
    echo "To install first: ${missing[*]}" >&2
    echo "With the first build this takes $time." >&2
    # So that a password is asked for here, and not within a step.
    [ "$EUID" = 0 ] || sudo true
    step "packages: look up" asRoot apt-get update -q
    installationSize "${missing[@]}" >&2
    step "packages: install" asRoot env DEBIAN_FRONTEND=noninteractive \
        apt-get install -q -y --no-install-recommends "${missing[@]}"
}

# Sets the array `privileged` to the words that make the command behind them root over network
# namespaces of its own: none for root, else a user namespace, which asks for no password and leaves
# the files that the command writes to the user. Fails where the kernel allows neither.
findPrivileged() {
    privileged=()
    [ "$EUID" != 0 ] || return 0
    # shellcheck disable=SC2016 # the inner shell expands it
    privileged=(unshare --map-root-user --net --mount
        sh -c 'mount -t tmpfs tmpfs /run && exec "$@"' sh)
    "${privileged[@]}" true 2>/dev/null
}
