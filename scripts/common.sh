# Shared by the scripts in this folder. Sourced, not run.

# Debian 12 packages: what building needs, and what the tests use on top.
BUILD_PACKAGES=(cmake ninja-build g++ pkg-config qtbase5-dev qtbase5-dev-tools
                libqt5websockets5-dev libqt5serialport5-dev nlohmann-json3-dev)
TEST_PACKAGES=(libbenchmark-dev ffmpeg clang libfuzzer-14-dev socat curl iproute2 nodejs npm)

# Installs the packages that are missing (as root, on Debian), and nothing else.
ensure_packages() {
    local missing=()
    local pkg
    for pkg in "$@"; do
        # nodejs/npm may come from elsewhere (e.g. a newer Node in /usr/bin); a working command is enough.
        case "$pkg" in
            nodejs) command -v node >/dev/null 2>&1 && continue ;;
            npm) command -v npm >/dev/null 2>&1 && continue ;;
        esac
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "missing packages: ${missing[*]} (run as root to install them)" >&2
        return 1
    fi
    echo "installing: ${missing[*]}"
    # The update may report a broken index for one suite; the install that follows still works.
    apt-get update -qq || true
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# configure_and_build DIR [cmake options...]
configure_and_build() {
    local dir="$1"; shift
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    cmake --build "$dir" -j "$(nproc)"
}

# Runs a command in a private network namespace with only loopback, where the machine allows
# it: test traffic cannot leave 127.0.0.1 and fixed peer ports cannot clash with anything else
# running here. Elsewhere it runs the command as it is.
in_private_network() {
    if command -v unshare >/dev/null && command -v ip >/dev/null && unshare -rn true 2>/dev/null; then
        unshare -rn sh -c 'ip link set lo up && exec "$@"' sh "$@"
    else
        echo "(no private network namespace here; running in the machine's own)"
        "$@"
    fi
}
