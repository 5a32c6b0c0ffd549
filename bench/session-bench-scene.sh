#!/usr/bin/env bash
# The inside of session-bench.sh, run by the scene with DISPLAY and SCENE_XVFB_PID set.
#   session-bench-scene.sh changing|static
set -euo pipefail
mode=$1
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
}
trap cleanup EXIT
sleep 2 # the scene draws its windows
xdotool mousemove 1919 1079 # the cursor out of the way of the comparisons

wait_for_line() { # FILE REGEX
  for _ in $(seq 150); do
    grep -qE "$2" "$1" 2>/dev/null && return 0
    sleep 0.1
  done
  echo "session-bench: nothing matching '$2' in $1" >&2
  cat "$1" >&2
  return 1
}

# session CODEC SCALE NAME AGENT_ARGS...: one session, the agent's JSON line to $WORK/NAME.json
session() {
  local codec=$1 scale=$2 name=$3
  shift 3
  node "$ROOT/tools/devserver/bin/devserver.js" --port 0 --license bench --no-consent \
    --state "$WORK/$name.state.json" --video-codecs "$codec" --scale "$scale" --log-level warn \
    >"$WORK/$name.service.out" 2>"$WORK/$name.service.err" &
  local service=$!
  pids+=($service)
  wait_for_line "$WORK/$name.service.out" '^devserver listening on '
  local api
  api=$(sed -n 's/^devserver listening on //p' "$WORK/$name.service.out")
  "$BUILD/bench/session_host" --api "$api" --license bench ${HOST_ARGS:-} \
    >"$WORK/$name.host.out" 2>"$WORK/$name.host.err" &
  local host=$!
  pids+=($host)
  wait_for_line "$WORK/$name.host.out" '^session code: '
  local code
  code=$(sed -n 's/^session code: //p' "$WORK/$name.host.out")
  local profiler=
  if [ -n "${PROFILE_DIR:-}" ]; then
    # Where the host's time goes, for the whole session (perf_event_paranoid 2 is enough).
    perf record -q ${PROFILE_ARGS:--F ${PROFILE_HZ:-499} -g} -p "$host" -o "$PROFILE_DIR/$name.perf" 2>/dev/null &
    profiler=$!
  fi
  node "$ROOT/tools/devserver/bin/bench-agent.js" --api "$api" --code "$code" --license bench \
    --host-pid "$host" --xvfb-pid "$SCENE_XVFB_PID" "$@" >"$WORK/$name.json"
  if [ -n "$profiler" ]; then
    kill -INT "$profiler" 2>/dev/null || true
    wait "$profiler" 2>/dev/null || true
  fi
  kill "$host" "$service" 2>/dev/null || true
  wait "$host" "$service" 2>/dev/null || true
}

# field FILE KEY
field() { node -e 'const r = JSON.parse(require("fs").readFileSync(process.argv[1], "utf8")); console.log(r[process.argv[2]])' "$1" "$2"; }

grab=(-hide_banner -nostdin -loglevel error -f x11grab -draw_mouse 0 -framerate 10 -video_size 1920x1080 -i "$DISPLAY")
x264=(-c:v libx264 -preset ultrafast -tune zerolatency -b:v 512k -pix_fmt yuv420p)
mjpeg=(-c:v mjpeg -q:v 5 -pix_fmt yuvj420p)
xvfb_ms() { cat /proc/"$SCENE_XVFB_PID"/task/*/schedstat | awk '{s += $1} END {printf "%.3f\n", s / 1e6}'; }

# peer NAME FRAMES ENCODER_ARGS...: "cpu_ms_per_frame xvfb_ms_per_frame bytes_per_frame"
peer() {
  local name=$1 frames=$2 x0 x1
  shift 2
  x0=$(xvfb_ms)
  local t0 t1
  t0=$(date +%s.%N)
  /usr/bin/time -f "%U %S" -o "$WORK/$name.time" ffmpeg "${grab[@]}" -frames:v "$frames" "$@" -y "$WORK/$name.out"
  x1=$(xvfb_ms)
  t1=$(date +%s.%N)
  awk -v f="$frames" -v x="$(awk -v a="$x0" -v b="$x1" -v s="$t0" -v e="$t1" -v i="$idle_ms_per_s" 'BEGIN {x = b - a - i * (e - s); print x < 0 ? 0 : x}')" -v s="$(stat -c %s "$WORK/$name.out")" \
    '{printf "%.2f %.2f %.0f\n", ($1 + $2) * 1000 / f, x / f, s / f}' "$WORK/$name.time"
}

# psnr FORMAT PICTURE_OR_STREAM: the last picture decoded, against a grab of the screen at its size
psnr() {
  ffmpeg -hide_banner -nostdin -loglevel error -f "$1" -i "$2" -update 1 -y "$WORK/last.png"
  local size
  size=$(ffprobe -v error -select_streams v:0 -show_entries stream=width,height -of csv=p=0:s=x "$WORK/last.png")
  ffmpeg "${grab[@]}" -frames:v 1 -vf "scale=${size/x/:}:flags=area" -y "$WORK/ref.png"
  ffmpeg -hide_banner -nostdin -i "$WORK/last.png" -i "$WORK/ref.png" -lavfi "[0:v]format=yuv444p[a];[1:v]format=yuv444p[b];[a][b]psnr" -f null - 2>&1 |
    sed -n 's/.*PSNR y:\([0-9.]*\).*average:\([0-9.inf]*\).*/\1 dB luma, \2 dB all at '"$size"'/p'
}

# The X server's own load from the scene's content, subtracted from every X figure.
x0=$(xvfb_ms); t0=$(date +%s.%N); sleep 5; x1=$(xvfb_ms); t1=$(date +%s.%N)
idle_ms_per_s=$(awk -v a="$x0" -v b="$x1" -v s="$t0" -v e="$t1" 'BEGIN {print (b - a) / (e - s)}')
echo "X server load of the scene alone: $(printf %.2f "$idle_ms_per_s") ms CPU/s (subtracted below)"

if [ "$mode" = changing ]; then
  # Each round runs every session, then the peers; the ratios are taken within a round, and with
  # several rounds their median is what a noisy machine (CPU stolen by neighbours) disturbs least.
  results="$WORK/rounds.txt"
  : >"$results"
  for round in $(seq "${ROUNDS:-1}"); do
    [ "${ROUNDS:-1}" -gt 1 ] && echo "-- round $round"
    printf '%-32s %10s %10s %12s %7s %9s %8s\n' pipeline "cpu ms/fr" "X ms/fr" "bytes/fr" fps "RSS MiB" threads
    for codec in ${CODECS:-image/jpeg video/avc}; do
      for scale in ${SCALES:-0.5 1.0}; do
        name="${codec#*/}-$scale"
        session "$codec" "$scale" "$name" --frames "$FRAMES"
        f=$(field "$WORK/$name.json" frames)
        c=$(awk -v c="$(field "$WORK/$name.json" host_cpu_ms)" -v f="$f" 'BEGIN {print c / f}')
        x=$(awk -v c="$(field "$WORK/$name.json" xvfb_cpu_ms)" -v s="$(field "$WORK/$name.json" seconds)" -v i="$idle_ms_per_s" -v f="$f" 'BEGIN {x = (c - i * s) / f; print x < 0 ? 0 : x}')
        printf '%-32s %10.2f %10.2f %12.0f %7.1f %9.1f %8s\n' "session $codec scale $scale" "$c" "$x" \
          "$(field "$WORK/$name.json" bytes_per_frame)" "$(field "$WORK/$name.json" fps)" \
          "$(awk -v k="$(field "$WORK/$name.json" host_rss_kib)" 'BEGIN {print k / 1024}')" \
          "$(field "$WORK/$name.json" host_threads)"
        echo "$round $name $c $x" >>"$results"
      done
    done
    if [ "${PEERS:-1}" = 1 ]; then
      read -r c x b <<<"$(peer mjpeg "$FRAMES" "${mjpeg[@]}" -f mjpeg)"
      printf '%-32s %10.2f %10.2f %12.0f\n' "x11grab -> mjpeg -q:v 5" "$c" "$x" "$b"
      echo "$round peer-jpeg $c $x" >>"$results"
      read -r c x b <<<"$(peer x264 "$FRAMES" "${x264[@]}" -f h264)"
      printf '%-32s %10.2f %10.2f %12.0f\n' "x11grab -> x264 ultrafast 512k" "$c" "$x" "$b"
      echo "$round peer-avc $c $x" >>"$results"
    fi
  done
  if [ "${PEERS:-1}" = 1 ]; then
    echo "-- host + X server CPU per frame against the peer of the same round; median over rounds"
    awk '
      { total[$1 " " $2] = $3 + $4; rounds[$1] = 1; if ($2 !~ /^peer/) names[$2] = 1 }
      END {
        for (n in names) {
          peer = "peer-" (n ~ /^avc/ ? "avc" : "jpeg"); k = 0; list = ""
          for (r in rounds) if ((r " " n) in total && (r " " peer) in total) {
            v[++k] = total[r " " n] / total[r " " peer]; list = list sprintf(" %.2f", v[k])
          }
          for (i = 1; i <= k; i++) for (j = i + 1; j <= k; j++) if (v[j] < v[i]) { t = v[i]; v[i] = v[j]; v[j] = t }
          m = k % 2 ? v[(k + 1) / 2] : (v[k / 2] + v[k / 2 + 1]) / 2
          printf "%-12s vs %-10s median %.2fx  (rounds:%s)\n", n, peer, m, list
        }
      }' "$results" | sort
  fi
else
  echo "-- CPU over ${STATIC_SECONDS} s of an unchanging screen, scale 0.5"
  for codec in image/jpeg video/avc; do
    name="static-${codec#*/}"
    session "$codec" 0.5 "$name" --seconds "$STATIC_SECONDS"
    awk -v c="$(field "$WORK/$name.json" host_cpu_ms)" -v s="$(field "$WORK/$name.json" seconds)" \
      -v x="$(field "$WORK/$name.json" xvfb_cpu_ms)" -v f="$(field "$WORK/$name.json" frames)" -v codec="$codec" \
      -v i="$idle_ms_per_s" 'BEGIN {printf "session %-12s host %.2f ms CPU/s (%.3f%% of a core), X server %+.2f ms/s over the scene, %d frames sent\n", codec, c / s, c / s / 10, x / s - i, f}'
  done
  echo "-- PSNR of the last picture the agent received against a grab of the screen"
  for codec in image/jpeg video/avc; do
    for scale in 0.5 1.0; do
      name="psnr-${codec#*/}-$scale"
      session "$codec" "$scale" "$name" --frames 0 --save "$WORK/$name.out"
      format=mjpeg
      [ "$codec" = video/avc ] && format=h264
      echo "session $codec scale $scale: $(psnr $format "$WORK/$name.out")"
    done
  done
  peer mjpeg-static 30 "${mjpeg[@]}" -f mjpeg >/dev/null
  echo "x11grab -> mjpeg -q:v 5: $(psnr mjpeg "$WORK/mjpeg-static.out")"
  peer x264-static 30 "${x264[@]}" -f h264 >/dev/null
  echo "x11grab -> x264 ultrafast 512k: $(psnr h264 "$WORK/x264-static.out")"
fi
