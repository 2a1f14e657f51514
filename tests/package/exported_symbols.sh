#!/usr/bin/env bash
# Lists the dynamic symbols that libquire and libkestrel export and fails on anything that is not
# a public class of the library (or the platform), so that nothing internal becomes ABI by accident.
set -euo pipefail
quire_lib=$1
kestrel_lib=$2
status=0

public_quire='(IConnection|ContentDownload|DownloadTarget|ITransferConnection|Connection|ConnectionUtils|RetryPolicy|RetryingConnection|ResumableUploader|Service|UserInfoService|DocsService|DocsFeed|DocsEntry|OAuthSigners)'
symbols=$(nm -D --defined-only -C "$quire_lib" | cut -d' ' -f3- | sed -E 's/@@?[A-Z_0-9]+$//' | grep -v '^QUIRE_0$')
[ -n "$symbols" ] || { echo "libquire exports nothing"; exit 1; }
bad=$(printf '%s\n' "$symbols" | grep -v -E "^((typeinfo|typeinfo name|vtable) for )?kestrel::quire::${public_quire}(::|$)" || true)
if [ -n "$bad" ]; then
  echo "libquire exports symbols outside its public classes:"; printf '%s\n' "$bad"; status=1
fi
for class in Connection ConnectionUtils UserInfoService DocsService DocsFeed DocsEntry OAuthSigners; do
  printf '%s\n' "$symbols" | grep -q "^vtable for kestrel::quire::${class}$" \
    || { echo "libquire does not export class ${class}"; status=1; }
done

symbols=$(nm -D --defined-only -C "$kestrel_lib" | cut -d' ' -f3- | sed -E 's/@@?[A-Z_0-9]+$//' | grep -v '^KESTREL_0$')
bad=$(printf '%s\n' "$symbols" | grep -v -E '^((typeinfo|typeinfo name|vtable) for )?kestrel::' || true)
if [ -n "$bad" ]; then
  echo "libkestrel exports symbols outside kestrel::"; printf '%s\n' "$bad"; status=1
fi
bad=$(printf '%s\n' "$symbols" | grep -E 'anonymous namespace|::internal::|::Impl(::|$)' || true)
if [ -n "$bad" ]; then
  echo "libkestrel exports internal symbols:"; printf '%s\n' "$bad"; status=1
fi
# The test doubles live in the static testing library, not in the shipped one.
bad=$(printf '%s\n' "$symbols" | grep -E 'ScriptedTransport' || true)
if [ -n "$bad" ]; then
  echo "libkestrel exports the testing library's classes:"; printf '%s\n' "$bad"; status=1
fi
[ $status -eq 0 ] && echo "exported symbols: only public classes"
exit $status
