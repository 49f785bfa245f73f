#!/usr/bin/env bash
# Runs one of the API checks with the npm tools of tools/api (installed by
# scripts/install-deps.sh with `npm ci` from package-lock.json):
#   check.sh lint                                   Redocly CLI 1 on docs/openapi.json
#   check.sh lint2                                  Redocly CLI 2 (the newest major) likewise
#   check.sh contract --gateway BIN --exchanges F   recorded answers against the served document
#   check.sh client --gateway BIN --out DIR         the generated client against a running gateway
# Exits 77 (ctest: skipped) when node is not installed at all, and lint2 when
# node is older than Redocly CLI 2 runs on (20.19; Debian 12's is 18).
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
# Both majors lint with one configuration, without telemetry or update notices.
lint_with() {
  local cli=$1
  shift
  REDOCLY_TELEMETRY=off REDOCLY_SUPPRESS_UPDATE_NOTICE=true exec node "$cli" lint \
    --config "$here/redocly.yaml" "$here/../../docs/openapi.json" "$@"
}
what=${1:-}
shift || true
case "$what" in
  lint) lint_with "$here/node_modules/@redocly/cli/bin/cli.js" "$@" ;;
  lint2)
    if ! node -e 'const [a, b] = process.versions.node.split(".").map(Number);
                  process.exit(a > 20 || (a === 20 && b >= 19) ? 0 : 1)'; then
      echo "skipped: Redocly CLI 2 needs node 20.19 or later, this is node $(node --version)"
      exit 77
    fi
    lint_with "$here/node_modules/redocly2/bin/cli.js" "$@" ;;
  contract) exec node "$here/contract.mjs" "$@" ;;
  client) exec node "$here/client-check.mjs" "$@" ;;
  *) echo "usage: $0 lint | lint2 | contract ... | client ..." >&2; exit 2 ;;
esac
