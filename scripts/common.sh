# Read by ./check and ./run: the Debian packages that they need, and how to become root.
# shellcheck shell=bash disable=SC2034 # its readers use what it sets

# To build the agent and to show it at work.
runPackages=(
    cmake g++ ninja-build pkgconf
    libcap-ng-dev libcli11-dev libfmt-dev libmnl-dev libtomlplusplus-dev nlohmann-json3-dev
    iproute2 python3
)

# To build everything, and to check it.
checkPackages=(
    "${runPackages[@]}"
    libbenchmark-dev libgtest-dev librapidcheck-dev
    clang clang-format clang-tidy git libclang-rt-dev shellcheck smcroute
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

# Installs those of the packages named that are missing; asks apt for nothing if none is.
installPackages() {
    local missing
    mapfile -t missing < <(missingPackages "$@")
    [ "${#missing[@]}" -gt 0 ] || return 0
    echo "installing: ${missing[*]}"
    asRoot apt-get update -q
    asRoot env DEBIAN_FRONTEND=noninteractive \
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
