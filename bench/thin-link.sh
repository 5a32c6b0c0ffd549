#!/usr/bin/env bash
# The age of what the agent sees over a thin link: the library in a host process shares the
# changing reference scene through a throttling proxy (tools/faultproxy) to the reference service,
# and the agent reads each picture's age from the clock strip the host shows. Both encoders, with
# their fixed limits of frames in flight, then again with the host's latency bound on.
# Usage: bench/thin-link.sh BUILD_DIR   (a build configured with -DQRV_BUILD_BENCH=ON)
#   RATE (bytes/s each way, 125000 = 1 Mbit/s), RTT_MS (150), SECONDS (60), BOUND (0.3 s)
# Needs: xvfb xterm x11-apps x11-utils x11-xserver-utils ffmpeg node
set -euo pipefail
BUILD=$(cd "${1:?usage: thin-link.sh BUILD_DIR}" && pwd)
SCENE=${SCENE:-/work/shared/bench-peers/scene.sh}
export BUILD RATE=${RATE:-125000} RTT_MS=${RTT_MS:-150} SECONDS_EACH=${SECONDS:-60} BOUND=${BOUND:-0.3}
export ROOT=$(cd "$(dirname "$0")/.." && pwd)
export WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
"$SCENE" -- bash -c '
set -euo pipefail
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
}
trap cleanup EXIT
sleep 2
wait_for_line() {
  for _ in $(seq 150); do grep -qE "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
  echo "thin-link: nothing matching \"$2\" in $1" >&2; cat "$1" >&2; return 1
}
echo "link: $((RATE * 8 / 1000)) kbit/s each way, ${RTT_MS} ms round trip, between the host and the service"
printf "%-12s %-10s %8s %10s %10s %10s %10s\n" encoder bound fps "bytes/fr" "median ms" "p95 ms" "max ms"
for codec in image/jpeg video/avc; do
  for bound in 0 "$BOUND"; do
    name="${codec#*/}-$bound"
    node "$ROOT/tools/faultproxy/faultproxy.js" >"$WORK/$name.proxy.out" 2>"$WORK/$name.proxy.err" &
    proxy=$!
    pids+=($proxy)
    wait_for_line "$WORK/$name.proxy.out" "^faultproxy control on "
    listen=$(sed -n "s/^faultproxy listening on //p" "$WORK/$name.proxy.out")
    control=$(sed -n "s/^faultproxy control on //p" "$WORK/$name.proxy.out")
    # A port of its own, since the banner names the public address (the proxy).
    port=$(node -e "const s = require(\"net\").createServer().listen(0, \"127.0.0.1\", () => { console.log(s.address().port); s.close(); })")
    node "$ROOT/tools/devserver/bin/devserver.js" --port "$port" --license bench --no-consent \
      --public-url "http://$listen/" --state "$WORK/$name.state.json" --video-codecs "$codec" \
      --log-level warn >"$WORK/$name.service.out" 2>"$WORK/$name.service.err" &
    service=$!
    pids+=($service)
    wait_for_line "$WORK/$name.service.out" "^devserver listening on "
    direct="http://127.0.0.1:$port/"
    curl -sf -X POST "${control}target?to=127.0.0.1:$port" >/dev/null
    curl -sf -X POST "${control}throttle?up=$RATE&down=$RATE" >/dev/null
    curl -sf -X POST "${control}latency?ms=$((RTT_MS / 2))" >/dev/null
    "$BUILD/bench/session_host" --api "http://$listen/" --license bench --timecode 1 \
      --latency-bound "$bound" >"$WORK/$name.host.out" 2>"$WORK/$name.host.err" &
    host=$!
    pids+=($host)
    wait_for_line "$WORK/$name.host.out" "^session code: "
    code=$(sed -n "s/^session code: //p" "$WORK/$name.host.out")
    # The agent talks to the service directly: the thin link is the host'"'"'s.
    node "$ROOT/tools/devserver/bin/bench-agent.js" --api "$direct" --code "$code" --license bench \
      --host-pid "$host" --seconds "$SECONDS_EACH" --settle 10 --ages 1 >"$WORK/$name.json"
    node -e "
      const r = JSON.parse(require(\"fs\").readFileSync(process.argv[1], \"utf8\"));
      const a = r.ages_ms ?? {};
      console.log([process.argv[2].padEnd(12), (Number(process.argv[3]) > 0 ? process.argv[3] + \" s\" : \"off\").padEnd(10),
        r.fps.toFixed(2).padStart(8), r.bytes_per_frame.toFixed(0).padStart(10), String(a.median).padStart(10),
        String(a.p95).padStart(10), String(a.max).padStart(10)].join(\" \"));
    " "$WORK/$name.json" "$codec" "$bound"
    kill "$host" "$service" "$proxy" 2>/dev/null || true
    wait "$host" "$service" "$proxy" 2>/dev/null || true
  done
done
'
