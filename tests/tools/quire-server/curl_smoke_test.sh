#!/usr/bin/env bash
# The whole story against a real quire-server with the curl command-line tool: user information,
# feed, create, content, replace, resumable upload with the one-byte overlap and a status query,
# flags, conditional delete, header checks, and a clean stop.
# Usage: curl_smoke_test.sh PATH-TO-quire-server
set -euo pipefail

server=$1
work=$(mktemp -d)
pid=
cleanup() {
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then kill -KILL "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }

"$server" --data "$work/data" >"$work/out" 2>"$work/err" &
pid=$!
for _ in $(seq 1 300); do
  grep -q "listening on" "$work/out" 2>/dev/null && break
  kill -0 "$pid" 2>/dev/null || fail "server exited: $(cat "$work/err")"
  sleep 0.1
done
line=$(head -n 1 "$work/out")
[[ "$line" =~ ^quire-server\ listening\ on\ https://127\.0\.0\.1:([0-9]+)$ ]] || fail "start line: $line"
port=${BASH_REMATCH[1]}

q=(curl -sS --max-time 20 --cacert "$work/data/tls/cert.pem"
   --connect-to "docs.quire.example:443:127.0.0.1:$port"
   --connect-to "api.quire.example:443:127.0.0.1:$port"
   -H "Quire-Version: 3.0")
auth=(-H "Authorization: Bearer quire-demo-token")
feed=https://docs.quire.example/feeds/default/private/full
status() { "${q[@]}" -o /dev/null -w '%{http_code}' "$@"; }
header() {  # name, curl arguments...: the value of that answer header
  local name=$1; shift
  "${q[@]}" -o /dev/null -D - "$@" | tr -d '\r' | sed -n "s/^$name: //Ip" | head -n 1
}

# User information, without a token.
[ "$("${q[@]}" https://api.quire.example/userinfo/email)" = "email=demo@quire.example&isVerified=true" ] \
  || fail "user information"

# Headers every request carries.
[ "$(curl -sS --cacert "$work/data/tls/cert.pem" --connect-to "docs.quire.example:443:127.0.0.1:$port" \
      -o /dev/null -w '%{http_code}' "${auth[@]}" $feed)" = 400 ] || fail "missing version"
[ "$(status $feed)" = 401 ] || fail "missing token"
[ "$(header WWW-Authenticate $feed)" = 'Bearer realm="quire"' ] || fail "challenge"

# An empty feed.
"${q[@]}" "${auth[@]}" $feed | grep -q '<openSearch:totalResults>0</openSearch:totalResults>' \
  || fail "empty feed"

# Create.
printf 'first version' >"$work/v1"
"${q[@]}" "${auth[@]}" -D "$work/h" -o "$work/created.xml" -H "Slug: Smoke%20test" \
  -H "Content-Type: text/plain" --data-binary @"$work/v1" $feed
grep -q "^HTTP/1.1 201" "$work/h" || fail "create: $(head -n 1 "$work/h")"
edit=$(tr -d '\r' <"$work/h" | sed -n 's/^Location: //p')
[[ "$edit" == $feed/* ]] || fail "Location $edit"
grep -q "<title>Smoke test</title>" "$work/created.xml" || fail "title"
src=$(grep -o 'src="[^"]*"' "$work/created.xml" | head -n 1 | cut -d'"' -f2)
etag=$(header ETag "${auth[@]}" "$edit")
[ "$("${q[@]}" "${auth[@]}" "$src")" = "first version" ] || fail "content"

# Replace.
printf 'second version' >"$work/v2"
[ "$(status "${auth[@]}" -X PUT --data-binary @"$work/v2" -H "Content-Type:" "$edit")" = 200 ] \
  || fail "replace"
[ "$("${q[@]}" "${auth[@]}" "$src")" = "second version" ] || fail "replaced content"

# Resumable upload of 1000000 bytes in two chunks; the second starts on the reported last byte.
head -c 1000000 /dev/urandom >"$work/big"
head -c 524288 "$work/big" >"$work/part1"
tail -c +524288 "$work/big" >"$work/part2"
upload=$(grep -o 'resumable-create-media" href="[^"]*"' <("${q[@]}" "${auth[@]}" $feed) | cut -d'"' -f3)
session=$(header Location "${auth[@]}" -X POST -H "Content-Type: application/atom+xml" \
  -H "X-Upload-Content-Type: application/octet-stream" -H "X-Upload-Content-Length: 1000000" \
  --data-binary '<entry xmlns="http://www.w3.org/2005/Atom"><title>Big</title></entry>' "$upload")
[[ "$session" == https://docs.quire.example/* ]] || fail "session $session"
[ "$(header Range -X PUT -H "Content-Range: bytes 0-524287/1000000" --data-binary @"$work/part1" \
      "$session")" = "bytes=0-524287" ] || fail "first chunk"
[ "$(header Range -X PUT -H "Content-Range: bytes */1000000" "$session")" = "bytes=0-524287" ] \
  || fail "status query"
"${q[@]}" -D "$work/h" -o "$work/done.xml" -X PUT -H "Content-Range: bytes 524287-999999/1000000" \
  --data-binary @"$work/part2" "$session"
grep -q "^HTTP/1.1 201" "$work/h" || fail "last chunk: $(head -n 1 "$work/h")"
big_src=$(grep -o 'src="[^"]*"' "$work/done.xml" | head -n 1 | cut -d'"' -f2)
"${q[@]}" "${auth[@]}" -o "$work/big.back" "$big_src"
cmp -s "$work/big" "$work/big.back" || fail "uploaded bytes differ"
[ "$(status -X PUT -H "Content-Range: bytes */1000000" "$session")" = 404 ] || fail "session kept"

# Flags.
id=${edit##*/}
[ "$(status "${auth[@]}" -X POST https://docs.quire.example/emulator/documents/$id/star)" = 200 ] \
  || fail "star"
"${q[@]}" "${auth[@]}" $feed | grep -q 'label="starred"' || fail "starred category"
"${q[@]}" "${auth[@]}" $feed | grep -q '<openSearch:totalResults>2</openSearch:totalResults>' \
  || fail "two documents"

# Conditional delete.
[ "$(status "${auth[@]}" -X DELETE -H "If-Match: $etag" "$edit")" = 412 ] || fail "stale delete"
etag=$(header ETag "${auth[@]}" "$edit")
[ "$(status "${auth[@]}" -X DELETE -H "If-Match: $etag" "$edit")" = 200 ] || fail "delete"
[ "$(status "${auth[@]}" "$src")" = 404 ] || fail "deleted content"

# Errors come with an error document.
"${q[@]}" "${auth[@]}" -D "$work/h" -o "$work/error.xml" "$src" || true
tr -d '\r' <"$work/h" | grep -qi '^Content-Type: application/xml$' || fail "error type"
grep -q '<errors' "$work/error.xml" || fail "error document"

# A clean stop.
kill -TERM "$pid"
wait "$pid" || fail "exit status $?"
pid=
echo "curl smoke test passed"
