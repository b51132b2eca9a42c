#!/bin/sh
# What somebody does who has the packages, compilers and nothing else: programs of both word sizes that know the wire header only
# run unchanged and share a controller, and the examples that come with the library print a document by three processes.
#   walk.sh CONSUMER WORK    CONSUMER: programs' sources; WORK: an empty folder
set -eu
consumer=$1 work=$2
mkdir -p "$work"

fail() {
    echo "walk.sh: $1" >&2
    exit 1
}
says() { # TEXT PROGRAM...
    text=$1
    shift
    "$@" >"$work/out" 2>&1 || fail "$* ended with $?: $(cat "$work/out")"
    grep -q "$text" "$work/out" || fail "$* says: $(cat "$work/out")"
}
# Waits until a file has something in it.
appears() {
    for _ in $(seq 200); do
        [ -s "$1" ] && return
        sleep 0.05
    done
    fail "nothing in $1"
}

word_sizes=64
gcc -o "$work/wire-64" "$consumer/wire.c"
if [ "$(dpkg --print-architecture)" = amd64 ]; then
    gcc -m32 -o "$work/wire-32" "$consumer/wire.c"
    word_sizes="64 32"
fi
for bits in $word_sizes; do
    says "wire: $bits-bit, 8192 bytes" velmora-mm run -- "$work/wire-$bits"
done

# One program waits while another, of the other word size where there is one, reads what it left and leaves an answer.
velmora-controller --socket "$work/mm.sock" &
controller=$!
trap 'kill "$controller" 2>/dev/null' EXIT
while [ ! -S "$work/mm.sock" ]; do
    kill -0 "$controller" || fail "no controller"
    sleep 0.05
done
mkfifo "$work/go"
velmora-mm run --controller "$work/mm.sock" -- "$work/wire-64" leave 'from the first' <"$work/go" >"$work/first" &
first=$!
exec 3>"$work/go"
appears "$work/first"
says '^from the first$' velmora-mm run --controller "$work/mm.sock" -- "$work/wire-${word_sizes##* }" take "$(cat "$work/first")" 'from the second'
echo >&3
wait "$first" || fail "the first program failed"
grep -qx 'from the second' "$work/first" || fail "the first program does not see what the second wrote: $(cat "$work/first")"

# The examples, as the library's package has them.
cp -r /usr/share/doc/libvelmora-dev/examples "$work/examples"
{
    cmake -S "$work/examples" -B "$work/build" -DCMAKE_BUILD_TYPE=Release && cmake --build "$work/build" -j "$(nproc)"
} >"$work/log" 2>&1 || fail "the examples cannot be built: $(cat "$work/log")"
says 'PASSED' "$work/build/guide/page-store-test"

identical() { # COPIES ARGUMENT...
    copies=$1
    shift
    says "of all $copies copies are identical to what was drawn" "$work/build/print-job" --processes --copies "$copies" --output "$work/printed" "$@"
    grep -q 'All blocks of every segment are free again' "$work/out" || fail "print-job $*: $(cat "$work/out")"
    for copy in $(seq "$copies"); do
        diff -r "$work/pages" "$work/printed/copy-$copy" >&2 || fail "copy $copy is not what was drawn: $*"
    done
}
ln -s printed/drawn "$work/pages"
identical 3
pages=$(find "$work/printed/drawn" -type f | wc -l)
[ "$pages" -gt 40 ] || fail "the default document has $pages pages"

# The loss of a party, on the controller that the programs above have used.
mv "$work/printed/drawn" "$work/drawn"
rm "$work/pages"
mkdir "$work/pages"
for page in 1 2 3 4; do
    cp "$work/drawn/page-000$page.ppm" "$work/pages/"
done
for lost in raster copy; do
    identical 2 --device "unix:$work/mm.sock" --rasters "$work/pages" --lose "$lost:3"
    grep -q 'collected by owner, all blocks are free; printing the job again' "$work/out" || fail "nobody was lost: $(cat "$work/out")"
done
echo "Programs, sharing and a print job of $pages pages by packages alone: passed"
