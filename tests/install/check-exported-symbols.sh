#!/usr/bin/env bash
# Compares the names a shared library exports with a checked-in list.
#
#   check-exported-symbols.sh LIBRARY LIST            exit 1 with a diff when they differ
#   check-exported-symbols.sh --update LIBRARY LIST   rewrite LIST from LIBRARY
#
# The names are those `nm -D --defined-only` shows, demangled, one per line,
# sorted bytewise and without repeats (a constructor's or destructor's two
# entry points demangle to the same text). Lines of LIST starting with '#'
# are comments and are kept by --update.
set -euo pipefail

update=0
if [ "${1:-}" = "--update" ]; then
  update=1
  shift
fi
if [ $# -ne 2 ]; then
  echo "usage: $0 [--update] LIBRARY LIST" >&2
  exit 2
fi
library=$1
list=$2

exported() {
  nm -D --defined-only "$library" | awk '{ print $NF }' | c++filt | LC_ALL=C sort -u
}

if [ "$update" -eq 1 ]; then
  header=$(grep '^#' "$list" 2>/dev/null || true)
  {
    [ -n "$header" ] && printf '%s\n' "$header"
    exported
  } >"$list.new"
  mv "$list.new" "$list"
  echo "wrote $(grep -vc '^#' "$list") names to $list"
  exit 0
fi

expected=$(mktemp)
actual=$(mktemp)
trap 'rm -f "$expected" "$actual"' EXIT
grep -v '^#' "$list" | sed '/^$/d' >"$expected"
exported >"$actual"
if ! diff -u --label "expected ($list)" --label "exported by $library" "$expected" "$actual"; then
  cat >&2 <<MSG

$library exports other names than $list lists ('+' exported but not
listed: an accidental export or a new public name; '-' listed but gone: a
removal that breaks programs linked against the library). If the change is
intended, refresh the list with \`ninja -C <build> update-libzkv-symbols\`
and commit it with the change.
MSG
  exit 1
fi
echo "$(wc -l <"$actual") exported names match $list"
