#!/usr/bin/env bash
# Requests per second and latency of GET /v1/status on the real application, 50 connections,
# measured with wrk. Usage: bench/api_wrk.sh [BUILD_DIR] [SECONDS]
# Starts build/bin/quillane offscreen with a private settings and data folder, enables the
# API on a free port with a fixed token, runs wrk against 127.0.0.1 only, then stops it.
set -euo pipefail
build=${1:-build}
seconds=${2:-10}
bin="$build/bin/quillane"
command -v wrk >/dev/null || { echo "wrk is not installed (apt-get install wrk)" >&2; exit 1; }
[ -x "$bin" ] || { echo "no $bin: build the quillane target first" >&2; exit 1; }

home=$(mktemp -d)
trap 'kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; rm -rf "$home"' EXIT
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
token=qlne_benchmarkTokenBBBBBBBBBBBBBBBBBBBBBBBBBBBBBB
mkdir -p "$home/config/Quillane" "$home/data" "$home/runtime"
chmod 700 "$home/runtime"
printf '[General]\nlocalAPIEnabled=true\nlocalAPIPort=%s\nlocalAPIToken=%s\n' "$port" "$token" \
  > "$home/config/Quillane/Quillane.conf"

QT_QPA_PLATFORM=offscreen XDG_CONFIG_HOME="$home/config" XDG_DATA_HOME="$home/data" \
  XDG_RUNTIME_DIR="$home/runtime" XCTestConfigurationFilePath=bench "$bin" &
pid=$!
for _ in $(seq 100); do
  curl -sf -o /dev/null -H "Authorization: Bearer $token" "http://127.0.0.1:$port/v1/status" && break
  sleep 0.1
done
wrk -t2 -c50 -d"${seconds}s" --latency -H "Authorization: Bearer $token" "http://127.0.0.1:$port/v1/status"
