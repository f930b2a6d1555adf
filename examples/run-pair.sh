#!/bin/sh
# Runs loomy-pair-example twice, one side accepting on a free loopback port and one connecting,
# shows what each printed, and succeeds only if both ended well with the same tree.
# Usage: run-pair.sh <path of loomy-pair-example>
set -u
bin=$1
dir=$(mktemp -d)
left=""
right=""
cleanup() {
    for pid in $left $right; do kill "$pid" 2>/dev/null; done
    rm -rf "$dir"
}
trap cleanup EXIT

"$bin" accept 0 >"$dir/left.out" 2>"$dir/left.log" &
left=$!
port=""
for _ in $(seq 100); do
    port=$(sed -n 's/^listening on port //p' "$dir/left.out")
    [ -n "$port" ] && break
    sleep 0.1
done
if [ -z "$port" ]; then
    echo "the accepting side didn't start"; cat "$dir/left.log"; exit 1
fi
"$bin" connect 127.0.0.1 "$port" >"$dir/right.out" 2>"$dir/right.log" &
right=$!
wait "$left"; left_status=$?
wait "$right"; right_status=$?
left=""; right=""

for side in left right; do
    echo "---- $side side"
    cat "$dir/$side.out"
done
tree() { sed -n '/^== tree/,/^== end/p' "$1" | sed '1d;$d'; }
tree "$dir/left.out" >"$dir/left.tree"
tree "$dir/right.out" >"$dir/right.tree"
status=0
if [ "$left_status" -ne 0 ] || [ "$right_status" -ne 0 ]; then
    echo "a side failed (left $left_status, right $right_status); its log:"
    cat "$dir/left.log" "$dir/right.log"
    status=1
fi
# Both sides' own additions and changes must be in both trees.
for path in left/exposure right/gain done/left done/right; do
    grep -q "^$path " "$dir/left.tree" || { echo "missing $path"; status=1; }
done
if ! diff -u "$dir/left.tree" "$dir/right.tree"; then
    echo "the trees differ"
    status=1
fi
[ "$status" -eq 0 ] && echo "the two processes end with equal trees"
exit "$status"
