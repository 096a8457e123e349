# Shared by the packaging checks (sourced): a scratch folder removed at exit, fail() to record
# a failed check and go on, and finish() to end with the count of failures.
set -euo pipefail

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

# finish WHAT SUMMARY: exits 1 when a check failed, else prints the summary.
finish() {
  if [ "$failures" -gt 0 ]; then
    echo "$failures check(s) failed$1" >&2
    exit 1
  fi
  echo "$2"
}
