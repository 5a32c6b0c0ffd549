#!/usr/bin/env bash
# A whole session against what a user would otherwise run, on the reference scene: the library in
# a host process (bench/session_host) shares the 1920x1080 desktop through the reference service
# to an agent that receives every frame (tools/devserver/bin/bench-agent.js), against ffmpeg
# x11grab -> mjpeg and -> libx264 ultrafast/zerolatency 512 kbit/s on the same screen, one after
# the other inside one scene. Changing scene: CPU per frame of the host (all threads) and of the X
# server, bytes per frame, at scale 0.5 and 1.0, both encoders. Static scene: the host's CPU per
# second over a minute, and PSNR of the last received picture against a grab of the same screen.
# Usage: bench/session-bench.sh BUILD_DIR   (a build configured with -DQRV_BUILD_BENCH=ON)
#   FRAMES (300), STATIC_SECONDS (60); PROFILE_DIR=DIR also records a perf profile of the host
#   for each session there (perf report -i DIR/NAME.perf) at PROFILE_HZ (499); CODECS and SCALES
#   pick the changing scene's sessions ("image/jpeg video/avc", "0.5 1.0"); CHANGING_ONLY=1 skips
#   the static scene and PEERS=0 the peers (to watch memory over many frames alone); ROUNDS=N runs
#   the changing scene's sessions and peers N times and reports each ratio's median
# Needs: xvfb xterm x11-apps x11-utils x11-xserver-utils xdotool ffmpeg time node
set -euo pipefail
BUILD=$(cd "${1:?usage: session-bench.sh BUILD_DIR}" && pwd)
SCENE=${SCENE:-/work/shared/bench-peers/scene.sh}
export BUILD FRAMES=${FRAMES:-300} ROUNDS=${ROUNDS:-1} STATIC_SECONDS=${STATIC_SECONDS:-60}
export ROOT=$(cd "$(dirname "$0")/.." && pwd)
export WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
echo "== changing scene, $FRAMES frames each"
"$SCENE" -- bash "$ROOT/bench/session-bench-scene.sh" changing
[ "${CHANGING_ONLY:-0}" = 1 ] && exit 0
echo "== static scene"
"$SCENE" --static -- bash "$ROOT/bench/session-bench-scene.sh" static
