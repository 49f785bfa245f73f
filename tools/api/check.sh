#!/usr/bin/env bash
# Runs one of the API checks with the npm tools of tools/api (installed by
# scripts/install-deps.sh with `npm ci` from package-lock.json):
#   check.sh lint                                   Redocly CLI on docs/openapi.json
#   check.sh contract --gateway BIN --exchanges F   recorded answers against the served document
#   check.sh client --gateway BIN --out DIR         the generated client against a running gateway
# Exits 77 (ctest: skipped) when node is not installed at all.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
if ! command -v node >/dev/null 2>&1; then
  echo "skipped: node is not installed (scripts/install-deps.sh installs Debian's nodejs and npm)"
  exit 77
fi
if [ ! -d "$here/node_modules" ]; then
  echo "tools/api/node_modules is missing: run scripts/install-deps.sh (npm ci in tools/api)" >&2
  exit 1
fi
what=${1:-}
shift || true
case "$what" in
  lint)
    exec node "$here/node_modules/@redocly/cli/bin/cli.js" lint --config "$here/redocly.yaml" \
      "$here/../../docs/openapi.json" "$@" ;;
  contract) exec node "$here/contract.mjs" "$@" ;;
  client) exec node "$here/client-check.mjs" "$@" ;;
  *) echo "usage: $0 lint | contract ... | client ..." >&2; exit 2 ;;
esac
