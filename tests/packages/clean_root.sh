#!/bin/sh
# The packages of build/packages/ in a clean Debian: each is installed, used and removed, and nothing is left behind. Root, or a
# user with sudo. The clean Debian, and what else is installed in it, is fetched once: build/clean-root/.
set -eu
cd "$(dirname "$0")/../.."

# What the packages need beyond Debian's minimum, and what their users build with.
present="systemd-standalone-sysusers"
tools="g++ gcc-multilib make cmake pkgconf dkms kmod libgtest-dev libcli11-dev ghostscript ghostscript-doc"

fail() {
    echo "clean_root.sh: $1" >&2
    exit 1
}

# In the clean root's own mount namespace, so that nothing is mounted afterwards.
in_root() {
    chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
}
quietly() {
    in_root "$@" >"$root.log" 2>&1 || {
        cat "$root.log" >&2
        fail "$* failed"
    }
}
install() {
    quietly apt-get install -y -q --no-install-recommends -o Dpkg::Options::=--force-unsafe-io "$@"
}
# Every file with its kind and mode, and the contents of /etc; not what package managers, logs and caches keep.
snapshot() {
    (cd "$root" && find . \( -path ./proc -o -path ./tmp -o -path ./packages -o -path ./var/log -o -path ./var/cache \
        -o -path ./var/lib/dpkg -o -path ./var/lib/apt -o -path './etc/*-' -o -path ./etc/ld.so.cache \) -prune -o \
        \( -path './etc/*' -type f -exec cksum {} + \) -o -printf '%p %y %m %l\n' | sort)
}
unchanged() { # SNAPSHOT
    snapshot | diff "$1" - >"$root.difference" || fail "the packages leave something behind, < before, > after:
$(cat "$root.difference")"
}
packages() {
    for name in "$@"; do
        basename "$(ls build/packages/"$name"_*.deb)" | sed 's,^,/packages/,'
    done
}

# Tool and library on a Debian without compilers and without another architecture.
runs_by_itself() {
    snapshot >"$root.before"
    # shellcheck disable=SC2046
    install $(packages velmora-mm libvelmora0)
    version=$(sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
    for program in velmora-mm velmora-controller; do
        [ "$(in_root $program --version)" = "$program $version" ] || fail "$program does not say its version"
    done
    in_root sh /packages/sessions/check.sh /packages/sessions/blocks-and-owners.txt velmora-mm ||
        fail "velmora-mm answers otherwise"
    in_root timeout 10 sh -c 'velmora-controller --socket /tmp/mm.sock --log & while [ ! -S /tmp/mm.sock ]; do sleep 0.1; done
        stat -c %a /tmp/mm.sock; kill $!; wait $!' >"$root.out" 2>&1 || fail "velmora-controller: $(cat "$root.out")"
    grep -qx 660 "$root.out" || fail "the socket's mode is not 660: $(cat "$root.out")"
    in_root getent group velmora >/dev/null || fail "there is no group velmora"
    quietly bash -n /usr/share/bash-completion/completions/velmora-mm
    for file in /lib/udev/rules.d/60-velmora-mm.rules /etc/modprobe.d/velmora-mm.conf /usr/share/man/man1/velmora-mm.1.gz \
        /usr/sbin/velmora-mm-load; do
        [ -e "$root$file" ] || fail "$file is not there"
    done
    quietly apt-get purge -y -q velmora-mm libvelmora0
    unchanged "$root.before"
}

# Everything, as one who builds programs has it.
is_built_with() {
    # shellcheck disable=SC2086
    install $tools
    snapshot >"$root.before"
    # shellcheck disable=SC2046
    install $(packages velmora-mm libvelmora-dev libvelmora0 velmora-mm-dkms)
    quietly /packages/use.sh /packages/consumer /tmp/native /usr ""
    quietly /packages/walk.sh /packages/consumer /tmp/walk
    tail -n 1 "$root.log"
    in_root dkms status | grep -q '^velmora-mm/' || fail "DKMS does not know the module's source: $(in_root dkms status)"
    quietly apt-get purge -y -q velmora-mm libvelmora-dev libvelmora0 velmora-mm-dkms
    unchanged "$root.before"
}

case ${1:-} in
--inside)
    root=$2
    mount -t proc proc "$root/proc"
    runs_by_itself
    is_built_with
    exit 0
    ;;
esac

# Once: the clean root with everything that will be asked of its package manager.
sources=/etc/apt/sources.list
[ -e $sources ] || sources=/etc/apt/sources.list.d/debian.sources
suite=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
place=$PWD/build/clean-root
clean=$place/$suite-$(echo "$present $tools" | cat - $sources | cksum | cut -d' ' -f1).tar
mkdir -p "$place"
if [ "$(id -u)" -ne 0 ]; then
    exec sudo "$0"
fi
if [ ! -e "$clean" ]; then
    echo "Fetching a clean Debian ($suite)"
    rm -f "$place"/*.tar
    new=$place/new.tar
    mmdebstrap --quiet --variant=minbase --include="$(echo "$present" | tr ' ' ,)" --skip=cleanup/apt,cleanup/run \
        --customize-hook="chroot \"\$1\" apt-get install -y -q --no-install-recommends --download-only $tools >&2" \
        "$suite" "$new" "$sources" >"$place/log" 2>&1 || {
        cat "$place/log" >&2
        fail "no clean Debian"
    }
    mv "$new" "$clean"
fi

root=$(mktemp -d "$place/root-XXXXXX")
trap 'rm -rf --one-file-system "$root" "$root".*' EXIT
tar -x -f "$clean" -C "$root"
cp /etc/resolv.conf "$root/etc/"
mkdir "$root/packages"
cp -r build/packages/*.deb tests/sessions tests/packages/use.sh tests/packages/walk.sh tests/packages/consumer "$root/packages/"
unshare --mount --propagation private "$0" --inside "$root"
echo "Packages in a clean $suite: passed"
