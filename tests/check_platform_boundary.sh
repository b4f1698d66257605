#!/usr/bin/env bash
# The OS adapter (platform/os_adapter) is the one place that speaks to the
# Linux socket interface. The library (support/), the common library
# (platform/commonlib), the message module (platform/msg) and the resolver
# (platform/dns) go through it: they include no socket header and never
# read errno, whose Linux numbers would otherwise leak past the adapter's
# WSA codes. (The resolver's c-ares header brings the socket headers along;
# its sockets are c-ares's own.)
# Usage: check_platform_boundary.sh <source root>
set -euo pipefail
root=${1:-$(dirname "$0")/..}
headers='sys/socket\.h|sys/select\.h|sys/ioctl\.h|sys/poll\.h|poll\.h|netinet/[a-z_]+\.h|arpa/[a-z_]+\.h|netdb\.h|errno\.h|cerrno'
status=0
while IFS= read -r -d '' f; do
  if hits=$(grep -nE "^[[:space:]]*#[[:space:]]*include[[:space:]]*[<\"]($headers)[>\"]" "$f"); then
    echo "$f: socket or errno header outside the OS adapter:"; echo "$hits"; status=1
  fi
  # String literals and line comments are not code: a log line may say "errno".
  code=$(sed -E 's/"([^"\\]|\\.)*"/""/g; s://.*$::' "$f")
  if hits=$(grep -nE '(^|[^A-Za-z0-9_])errno([^A-Za-z0-9_]|$)' <<<"$code"); then
    echo "$f: errno read outside the OS adapter:"; echo "$hits"; status=1
  fi
done < <(find "$root/support" "$root/platform/commonlib" "$root/platform/msg" "$root/platform/dns" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) -print0)
[ "$status" -eq 0 ] && echo "platform boundary ok"
exit "$status"
