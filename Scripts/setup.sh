# Sourced by the other scripts: where the project lies, and the Debian packages that each job needs.

set -euo pipefail
projectDir=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

buildPackages=(
    cmake g++ ninja-build pkg-config
    libboost-dev libboost-system-dev libisal-dev
    libavformat-dev libavcodec-dev libavutil-dev
    libcli11-dev libfmt-dev nlohmann-json3-dev
)
# GoogleTest and the readers that look at what the library wrote. clang builds the consumer of the installed library.
# strace and the file systems are there to make the command fail. The last are what the measurements need that are built
# with the tests.
testPackages=(
    libgtest-dev libgmock-dev python3 clang
    ffmpeg mediainfo libimage-exiftool-perl quicktime-utils chromium fonts-dejavu-core
    gstreamer1.0-plugins-base-apps gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-libav
    strace mount groff-base e2fsprogs xfsprogs btrfs-progs
    libbenchmark-dev valgrind
)
# The peers that the benchmark runs beside.
benchPackages=(
    libavformat-dev libquicktime-dev
    libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-plugins-good
    nlohmann-json3-dev python3
)
stressPackages=(faketime)
showPackages=(ffmpeg)
fuzzPackages=(clang libclang-rt-14-dev)
checkPackages=("${fuzzPackages[@]}" clang-format clang-tidy clang-tools valgrind)

# Installs what is missing of the packages given; silent when nothing is.
ensurePackages()
{
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    local asRoot=()
    if [ "$(id -u)" -ne 0 ]; then
        asRoot=(sudo)
    fi
    echo "Installing ${missing[*]}" >&2
    "${asRoot[@]}" apt-get update -q >&2
    "${asRoot[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" >&2
}

# Runs a command and shows what it printed only when it fails.
quietly()
{
    local log status=0
    log=$(mktemp)
    "$@" >"$log" 2>&1 || status=$?
    [ $status -eq 0 ] || cat "$log" >&2
    rm -f "$log"
    return $status
}

# Runs a test preset with further arguments of ctest, then tells what could not run here and why. Exit status: ctest's.
passTests()
{
    local status=0 skipped=$projectDir/build/$1/Skipped
    rm -rf "$skipped"
    ctest --preset "$@" || status=$?
    if [ -d "$skipped" ]; then
        printf '\nNot run here:\n'
        sed 's/^/  /' "$skipped"/*
    fi
    return $status
}
