# Shared by the scripts: the Debian packages Quillvane needs, and how to get them.
# shellcheck shell=bash

# To build and run.
BUILD_PACKAGES=(
    g++ cmake ninja-build pkg-config git
    qt6-base-dev libqt6svg6 libglib2.0-dev libsystemd-dev libxcb1-dev libsodium-dev libsqlite3-dev libpsl-dev libjson-glib-dev
    desktop-file-utils
)
# To run the whole test suite and the benchmarks.
TEST_PACKAGES=(
    libbenchmark-dev dbus libglib2.0-bin xdg-utils xvfb xauth zsh bsdutils trayer xdotool openssl
    sqlite3 python3-jsonschema
    # Sandboxed apps' links through the real portal, and the window on a tiling Wayland desktop.
    xdg-desktop-portal xdg-desktop-portal-gtk gsettings-desktop-schemas bubblewrap
    sway wtype qt6-wayland
    # The browser extension, end to end in the real browsers, headless.
    firefox-esr chromium
)

# To make the Debian and RPM packages (scripts/package), and to check the
# packaged metadata and manual page (the test command does).
PACKAGE_PACKAGES=(
    dpkg-dev file rpm debootstrap lintian
)
METADATA_PACKAGES=(
    desktop-file-utils appstream man-db groff-base
)

# To build and run the fuzzers (libFuzzer comes with clang's runtime libraries).
FUZZ_PACKAGES=(
    clang libclang-rt-14-dev
)

# Installs the named packages that are not installed yet, through sudo when not root.
ensure_packages() {
    local missing=() package
    for package in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
            missing+=("$package")
        fi
    done
    [ "${#missing[@]}" -eq 0 ] && return 0

    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null 2>&1; then
            echo "Quillvane needs these Debian packages: ${missing[*]}" >&2
            echo "Install them as root (apt-get install ${missing[*]}) and run this again." >&2
            exit 1
        fi
        sudo=(sudo)
    fi
    echo "Installing: ${missing[*]}"
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null
}

# One clang build serves the sanitized test suite and the fuzzers (AddressSanitizer,
# UndefinedBehaviorSanitizer, and libFuzzer's coverage in every target), so that the
# library is compiled once for both. Debug keeps the assertions; -O2 costs about as much to
# compile as -O1 and gives the fuzzers up to a sixth more executions.
#   configure_sanitized [ON|OFF]     (warnings as errors; left as configured when not given)
SANITIZED_BUILD=build/sanitize
configure_sanitized() {
    # An older tree of that name was configured with GCC; CMake cannot change a cache's compiler.
    if [ -f "$SANITIZED_BUILD/CMakeCache.txt" ] \
        && ! grep -q '^CMAKE_CXX_COMPILER:[A-Z]*=.*clang++' "$SANITIZED_BUILD/CMakeCache.txt"; then
        rm -rf "$SANITIZED_BUILD"
    fi
    cmake -S . -B "$SANITIZED_BUILD" -G Ninja \
        -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
        -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_FLAGS_DEBUG="-g -O2" -DCMAKE_CXX_FLAGS_DEBUG="-g -O2" \
        -DQUILLVANE_FUZZ=ON \
        -DQUILLVANE_BUILD_TESTS=ON \
        -DQUILLVANE_BUILD_BENCHMARKS=OFF \
        ${1:+-DQUILLVANE_WERROR="$1"} >/dev/null
}

build_jobs() {
    nproc 2>/dev/null || echo 2
}

# Counts the tests that skipped in the last CTest run of a build, says how many,
# and fails on any that tests/allowed-skips does not name: a test that never runs
# catches nothing.
check_skips() {
    local log="$1/Testing/Temporary/LastTest.log" skipped unexpected
    skipped=$(grep -E '^SKIP +:' "$log" || true)
    unexpected=$(printf '%s\n' "$skipped" | grep -v -E -f <(grep -v '^#' tests/allowed-skips) | grep . || true)
    echo "Skipped tests in $1: $(printf '%s' "$skipped" | grep -c . || true)"
    if [ -n "$unexpected" ]; then
        echo "Skipped, and not in tests/allowed-skips:" >&2
        printf '%s\n' "$unexpected" >&2
        return 1
    fi
}
