#!/bin/sh
# Serves a folder of three files (one empty, one of several parts) with loomy-serve-example,
# mirrors it into an empty folder with loomy-mirror-example, and succeeds only if the mirror
# ended well and holds the same files, byte for byte.
# Usage: run-mirror.sh <loomy-serve-example> <loomy-mirror-example>
set -u
dir=$(mktemp -d)
server=""
cleanup() {
    [ -n "$server" ] && kill "$server" 2>/dev/null
    rm -rf "$dir"
}
trap cleanup EXIT

mkdir -p "$dir/served/textures" "$dir/mirrored"
echo "hello" >"$dir/served/readme.txt"
: >"$dir/served/empty.bin"
head -c 200000 /dev/urandom >"$dir/served/textures/stone.raw"

"$1" 0 "$dir/served" >"$dir/serve.out" 2>"$dir/serve.log" &
server=$!
port=""
for _ in $(seq 100); do
    port=$(sed -n 's/^listening on port \([0-9]*\),.*/\1/p' "$dir/serve.out")
    [ -n "$port" ] && break
    sleep 0.1
done
if [ -z "$port" ]; then
    echo "the serving side didn't start"; cat "$dir/serve.log"; exit 1
fi
"$2" 127.0.0.1 "$port" "$dir/mirrored" >"$dir/mirror.out" 2>"$dir/mirror.log"
status=$?
cat "$dir/serve.out" "$dir/mirror.out"
if [ $status -ne 0 ]; then
    echo "the mirror ended with status $status"; cat "$dir/mirror.log"; exit 1
fi
diff -r "$dir/served" "$dir/mirrored" || { echo "the folders differ"; exit 1; }
echo "the mirror holds the served files"
