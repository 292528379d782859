# Sourced by the other scripts: goes to the project's root, and defines how to install what is missing and how to build.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

PACKAGES=(g++ cmake ninja-build libgtest-dev libabsl-dev libfmt-dev libutfcpp-dev libcli11-dev nlohmann-json3-dev libgrpc++-dev
    libprotobuf-dev protobuf-compiler protobuf-compiler-grpc libsqlitecpp-dev libspdlog-dev libsystemd-dev pkg-config)

# Installs the Debian packages among the arguments that are not there yet. Asks the registry only when one is missing.
install_packages() {
    local missing=()
    for package in "$@"; do
        dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    local as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    echo "Installing: ${missing[*]}" >&2
    "${as_root[@]}" apt-get update -qq
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
}

# Configures a preset of CMakePresets.json: configure PRESET [arguments of cmake]. With ccache, where that is installed, all
# build trees of one compiler and its flags share what they compile.
configure() {
    if command -v ccache >/dev/null; then
        export CMAKE_CXX_COMPILER_LAUNCHER=ccache CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1
    fi
    cmake --preset "$@" >&2
}

# Configures and builds a preset: build PRESET [arguments of cmake --build].
build() {
    configure "$1"
    cmake --build --preset "$@" >&2
}
