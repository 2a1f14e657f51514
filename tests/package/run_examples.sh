#!/usr/bin/env bash
# Runs the example programs against a local emulator, the way a host developer would:
#   run_examples.sh QUIRE_SERVER LIST_DOCUMENTS UPLOAD_FILE WORK_DIR
# Starts quire-server on 127.0.0.1 (a free port, HTTPS with its own certificate), uploads a file
# in several chunks with upload_file, checks the progress it reports and that the emulator holds
# the very bytes, lists the documents with list_documents, checks that a refused token fails, and
# stops the emulator. Every step is bounded in time.
set -euo pipefail
server=$1
list_documents=$2
upload_file=$3
work=$4

rm -rf "$work"
mkdir -p "$work"
data="$work/data"

"$server" --data "$data" --listen 127.0.0.1:0 >"$work/server.out" 2>"$work/server.err" &
server_pid=$!
stop_server() {
  if kill -0 "$server_pid" 2>/dev/null; then kill -KILL "$server_pid" 2>/dev/null || true; fi
}
trap stop_server EXIT
fail() {
  echo "FAILED: $*"
  echo "--- emulator's standard error:"; cat "$work/server.err" || true
  exit 1
}

# The first line on standard output says where it listens.
for _ in $(seq 1 200); do
  [ -s "$work/server.out" ] && break
  kill -0 "$server_pid" 2>/dev/null || fail "the emulator did not start"
  sleep 0.1
done
line=$(head -n 1 "$work/server.out")
address=${line##*https://}
[[ "$address" =~ ^127\.0\.0\.1:[0-9]+$ ]] || fail "unexpected first line: $line"
emulator=(--emulator "$address" --ca-file "$data/tls/cert.pem")
echo "emulator at $address"

# 1 MiB and 1000 bytes in chunks of 256 KiB: five PUTs, each after the first starting again at the
# last byte the emulator holds.
head -c 1049576 /dev/urandom >"$work/report.bin"
QUIRE_TOKEN=quire-demo-token timeout 60 "$upload_file" "$work/report.bin" --title "Quarterly report" \
  --type application/pdf --chunk-size 262144 "${emulator[@]}" >"$work/upload.out" 2>&1 \
  || { cat "$work/upload.out"; fail "upload_file exited with $?"; }
cat "$work/upload.out"
expected_progress="progress: 262144 of 1049576 bytes (24%)
progress: 524287 of 1049576 bytes (49%)
progress: 786430 of 1049576 bytes (74%)
progress: 1048573 of 1049576 bytes (99%)
progress: 1049576 of 1049576 bytes (100%)"
[ "$(grep '^progress:' "$work/upload.out")" = "$expected_progress" ] \
  || fail "upload_file reported other progress than expected"
grep -q '^uploaded "Quarterly report" (application/pdf, 1049576 bytes in 5 chunks): ' \
  "$work/upload.out" || fail "upload_file did not report the new document"

# The emulator keeps each document's content in a file of its own: one of them holds our bytes.
found=no
for content in "$data"/content/*; do
  if cmp -s "$content" "$work/report.bin"; then found=yes; fi
done
[ "$found" = yes ] || fail "the emulator does not hold the uploaded bytes"

QUIRE_TOKEN=quire-demo-token timeout 60 "$list_documents" "${emulator[@]}" \
  >"$work/list.out" 2>"$work/list.err" || { cat "$work/list.err"; fail "list_documents failed"; }
cat "$work/list.out" "$work/list.err"
grep -q $'^Quarterly report\tapplication/pdf\t20[0-9][0-9]-' "$work/list.out" \
  || fail "list_documents does not show the uploaded document"
grep -qx 'documents: 1' "$work/list.err" || fail "list_documents counted otherwise"

# A token the emulator does not know: the callback gets the HTTP status 401.
if QUIRE_TOKEN=not-a-token timeout 60 "$list_documents" "${emulator[@]}" >"$work/refused.out" \
  2>&1; then
  fail "list_documents succeeded with a refused token"
fi
grep -q 'failed with status 401' "$work/refused.out" || fail "a refused token did not give 401"

kill -TERM "$server_pid"
wait "$server_pid" || fail "the emulator did not stop cleanly"
echo "examples: upload with progress and listing against the emulator passed"
