#!/usr/bin/env bash
# Builds the peer floors and runs capture_bench inside the reference scene, changing then static.
#   bench/capture-bench.sh BUILD_DIR [FRAMES]
set -euo pipefail
build=$1 frames=${2:-100}
peers_src=/work/shared/bench-peers
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
gcc -O2 -o "$work/memfloor" "$peers_src/memfloor.c"
gcc -O2 -o "$work/xshmgrab" "$peers_src/xshmgrab.c" -lX11 -lXext
echo "== changing scene"
bash "$peers_src/scene.sh" -- "$build/bench/capture_bench" "$work" "$frames"
echo "== static scene"
bash "$peers_src/scene.sh" --static -- "$build/bench/capture_bench" "$work" "$frames"
