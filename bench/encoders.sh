#!/usr/bin/env bash
# The frame encoders against what a user would otherwise run, on the reference scene
# (/work/shared/bench-peers/scene.sh, or SCENE): records FRAMES frames of the changing 1920x1080
# desktop at 10 fps, runs encoder_bench on them (JPEG; H.264 at scale 1.0 and 0.5), then the peers
# on the same recording (encoding only) and live (ffmpeg x11grab, capture included).
# Usage: bench/encoders.sh BUILD_DIR   (a build configured with -DQRV_BUILD_BENCH=ON)
# Peers' PSNR comes from ffmpeg's psnr filter (B, G, R together for JPEG; luma for H.264), as
# encoder_bench measures its own.
# Needs: xvfb xterm x11-apps x11-utils x11-xserver-utils ffmpeg time
set -euo pipefail
BUILD=$(cd "${1:?usage: encoders.sh BUILD_DIR}" && pwd)
SCENE=${SCENE:-/work/shared/bench-peers/scene.sh}
FRAMES=${FRAMES:-50}
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
export BUILD FRAMES WORK
"$SCENE" -- bash -c '
set -euo pipefail
sleep 2  # let the scene draw its windows
cpu_ms() { awk -v f="$FRAMES" "{ printf \"%.2f\", (\$1 + \$2) * 1000 / f }" "$1"; }
bytes() { awk -v s="$(stat -c %s "$1")" -v f="$FRAMES" "BEGIN { printf \"%.0f\", s / f }"; }
grab=(-loglevel error -f x11grab -framerate 10 -video_size 1920x1080 -i "$DISPLAY")
ffmpeg "${grab[@]}" -frames:v "$FRAMES" -f rawvideo -pix_fmt bgr0 "$WORK/frames.bgrx"
echo "== this library, on the recording (CPU includes BGRX to I420 for H.264)"
"$BUILD/bench/encoder_bench" "$WORK/frames.bgrx" 1920 1080
echo "== libx264 presets at the stream'"'"'s settings, on the recording (encoder CPU only)"
"$BUILD/bench/x264_preset_bench" "$WORK/frames.bgrx" 1920 1080
raw=(-f rawvideo -pix_fmt bgr0 -video_size 1920x1080 -framerate 10 -i "$WORK/frames.bgrx")
x264=(-c:v libx264 -preset ultrafast -tune zerolatency -b:v 512k)
echo "== peers, on the recording: CPU ms/frame, bytes/frame, PSNR"
/usr/bin/time -f "%U %S" -o "$WORK/t1" ffmpeg -loglevel error "${raw[@]}" -c:v mjpeg -q:v 5 -pix_fmt yuvj420p -f mjpeg -y "$WORK/peer.mjpeg"
psnr=$(ffmpeg -loglevel info "${raw[@]}" -i "$WORK/peer.mjpeg" -lavfi "[1:v]settb=1,setpts=N,format=gbrp[a];[0:v]settb=1,setpts=N,format=gbrp[b];[a][b]psnr" -f null - 2>&1 | sed -n "s/.*PSNR r.*average:\([0-9.]*\).*/\1/p")
echo "ffmpeg mjpeg -q:v 5         $(cpu_ms "$WORK/t1") $(bytes "$WORK/peer.mjpeg") ${psnr} (RGB)"
/usr/bin/time -f "%U %S" -o "$WORK/t2" ffmpeg -loglevel error "${raw[@]}" "${x264[@]}" -f h264 -y "$WORK/peer.h264"
psnr=$(ffmpeg -loglevel info "${raw[@]}" -i "$WORK/peer.h264" -lavfi "[0:v]settb=1,setpts=N,format=yuv420p[r];[1:v]settb=1,setpts=N[d];[d][r]psnr" -f null - 2>&1 | sed -n "s/.*PSNR y:\([0-9.]*\).*/\1/p")
echo "ffmpeg x264 ultrafast 512k  $(cpu_ms "$WORK/t2") $(bytes "$WORK/peer.h264") ${psnr} (luma)"
echo "== peers, live from x11grab (capture included)"
/usr/bin/time -f "%U %S" -o "$WORK/t3" ffmpeg "${grab[@]}" -frames:v "$FRAMES" -c:v mjpeg -q:v 5 -pix_fmt yuvj420p -f mjpeg -y "$WORK/live.mjpeg"
echo "x11grab mjpeg -q:v 5        $(cpu_ms "$WORK/t3") $(bytes "$WORK/live.mjpeg")"
/usr/bin/time -f "%U %S" -o "$WORK/t4" ffmpeg "${grab[@]}" -frames:v "$FRAMES" "${x264[@]}" -f h264 -y "$WORK/live.h264"
echo "x11grab x264 ultrafast 512k $(cpu_ms "$WORK/t4") $(bytes "$WORK/live.h264")"
'
