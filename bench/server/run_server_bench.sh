#!/usr/bin/env bash
# Throughput of quire-server over loopback, measured with the curl command-line tool: upload (one
# POST of the whole document, and a resumable upload in 8 MiB chunks) and download of one
# document, over HTTPS and plain HTTP, with the data folder on disk (every upload is made durable
# with fsync before it is answered) and, where /dev/shm exists, in memory (the network path alone).
#
# Usage: bench/server/run_server_bench.sh [QUIRE_SERVER [SIZE_MIB]]
#   QUIRE_SERVER  the binary (default: build/plain/tools/quire-server)
#   SIZE_MIB      document size in MiB (default: 1024, i.e. 1 GiB)
set -euo pipefail
cd "$(dirname "$0")/../.."

server=${1:-build/plain/tools/quire-server}
size_mib=${2:-1024}
chunk_mib=8
[ -x "$server" ] || { echo "no server binary at $server (build it first)" >&2; exit 1; }

work=$(mktemp -d)
pid=
cleanup() {
  if [ -n "$pid" ]; then kill -TERM "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
  [ -n "${shm:-}" ] && rm -rf "$shm"
}
trap cleanup EXIT

echo "quire-server throughput over loopback, document of $size_mib MiB, curl $(curl --version | head -n 1 | cut -d' ' -f2)"
head -c $((size_mib << 20)) /dev/urandom >"$work/document"
split -b ${chunk_mib}M -d -a 4 "$work/document" "$work/chunk."
total=$((size_mib << 20))

start_server() {  # data folder, extra arguments...
  local data=$1; shift
  rm -rf "$data"
  "$server" --data "$data" "$@" >"$work/out" 2>"$work/err" &
  pid=$!
  for _ in $(seq 1 300); do grep -q "listening on" "$work/out" 2>/dev/null && break; sleep 0.05; done
  local line; line=$(head -n 1 "$work/out")
  scheme=${line#quire-server listening on }
  scheme=${scheme%%://*}
  port=${line##*:}
  local service_port=443
  [ "$scheme" = http ] && service_port=80
  q=(curl -sS --fail --cacert "$data/tls/cert.pem" -H "Quire-Version: 3.0"
     -H "Authorization: Bearer quire-demo-token"
     --connect-to "docs.quire.example:$service_port:127.0.0.1:$port")
  feed=$scheme://docs.quire.example/feeds/default/private/full
}

stop_server() {
  kill -TERM "$pid"; wait "$pid" || true; pid=
}

mibs() {  # bytes, seconds -> MiB/s
  awk -v b="$1" -v s="$2" 'BEGIN { printf "%8.1f MiB/s", b / 1048576 / s }'
}

run() {  # label, data folder, server arguments...
  local label=$1 data=$2; shift 2
  start_server "$data" "$@"

  local t; t=$("${q[@]}" -o "$work/entry.xml" -w '%{time_total}' -X POST -T "$work/document" \
    -H "Content-Type: application/octet-stream" "$feed")
  printf '%-22s upload (one POST)         %s  (%.2f s)\n' "$label" "$(mibs $total "$t")" "$t"
  local src; src=$(grep -o 'src="[^"]*"' "$work/entry.xml" | head -n 1 | cut -d'"' -f2)

  t=$("${q[@]}" -o /dev/null -w '%{time_total}' "$src")
  printf '%-22s download                  %s  (%.2f s)\n' "$label" "$(mibs $total "$t")" "$t"

  local session; session=$("${q[@]}" -o /dev/null -D - -X POST -H "Content-Type: application/atom+xml" \
    -H "X-Upload-Content-Length: $total" -H "X-Upload-Content-Type: application/octet-stream" \
    --data-binary "" "$scheme://docs.quire.example/upload/feeds/default/private/full" |
    tr -d '\r' | sed -n 's/^Location: //p')
  local begin; begin=$(date +%s.%N)
  local first=0 file
  for file in "$work"/chunk.*; do
    local length; length=$(stat -c %s "$file")
    "${q[@]}" -o /dev/null -X PUT -T "$file" \
      -H "Content-Range: bytes $first-$((first + length - 1))/$total" "$session" || true
    first=$((first + length))
  done
  local end; end=$(date +%s.%N)
  t=$(awk -v a="$begin" -v b="$end" 'BEGIN { print b - a }')
  printf '%-22s upload (resumable, %d MiB) %s  (%.2f s)\n' "$label" "$chunk_mib" "$(mibs $total "$t")" "$t"
  stop_server
}

run "https, data on disk" "$work/data"
run "http,  data on disk" "$work/data" --http
if [ -d /dev/shm ] && [ -w /dev/shm ]; then
  shm=$(mktemp -d /dev/shm/quire-bench-XXXXXX)
  run "https, data in memory" "$shm/data"
  run "http,  data in memory" "$shm/data" --http
fi
