#!/bin/sh
# Installs the Debian packages that the named groups need and that are missing. Root, or a user with sudo.
#   scripts/setup.sh GROUP...     groups: bench build demo docs fuzz lint mutate package target test test-packages test-pages
# A stamp under build/ remembers what was found, so that a second run costs nothing.
set -eu
cd "$(dirname "$0")/.."

packages() {
    case $1 in
    build) echo "ccache g++-12 g++-12-multilib g++-arm-linux-gnueabihf cmake ninja-build libcli11-dev libtomlplusplus-dev nlohmann-json3-dev python3" ;;
    bench) echo "ccache g++-12 g++-12-multilib cmake ninja-build libboost-dev libcli11-dev nlohmann-json3-dev python3" ;;
    docs) echo "doxygen" ;;
    demo) echo "ghostscript ghostscript-doc" ;;
    fuzz) echo "clang-14 libclang-rt-14-dev g++-12-multilib cmake ninja-build googletest" ;;
    lint) echo "clang-format clang-tidy cppcheck g++-12-multilib git python3 shellcheck" ;;
    mutate) echo "python3-clang-14" ;;
    package) echo "$(packages build) debhelper dh-dkms dpkg-dev fakeroot lintian" ;;
    target) echo "qemu-system-arm device-tree-compiler python3" ;;
    test-packages) echo "dkms libgtest-dev mmdebstrap pkgconf" ;;
    test-pages) echo "chromium" ;;
    test) echo "googletest qemu-user gcovr python3 python3-pyte" ;;
    *) echo "setup.sh: unknown group '$1'" >&2; exit 2 ;;
    esac
}

installed() {
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

wanted=
for group in "$@"; do
    wanted="$wanted $(packages "$group")"
done
stamp=build/.setup-$(echo "$wanted" | cksum | cut -d' ' -f1)
[ -e "$stamp" ] && exit 0

missing=
for package in $wanted; do
    installed "$package" || missing="$missing $package"
done
if [ -n "$missing" ]; then
    echo "Installing:$missing"
    root=
    if [ "$(id -u)" -ne 0 ]; then
        root=sudo
        command -v sudo >/dev/null || {
            echo "setup.sh: these Debian packages are missing, and only root can install them:$missing" >&2
            exit 1
        }
    fi
    # An index that cannot be fetched is no reason to stop: the packages may still resolve.
    $root apt-get update -qq || echo "setup.sh: apt-get update reported a problem; going on" >&2
    # shellcheck disable=SC2086
    $root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing >build-setup.log 2>&1 || {
        cat build-setup.log >&2
        rm -f build-setup.log
        exit 1
    }
    rm -f build-setup.log
fi
mkdir -p build
touch "$stamp"
