#!/usr/bin/env bash
# The README's quick start holds: each command of its table exists as written (a script present
# and executable, or a make target that the Makefile defines), every `make TARGET` it names is
# defined, and CI runs its test command. A renamed script or target fails here first.
set -uo pipefail
root=${1:?path to the source tree}
failures=0
fail() { echo "FAILED: $*"; failures=$((failures + 1)); }

section=$(awk '/^## Quick start/ { on = 1; next } /^## / { on = 0 } on' "$root/README.md")
[ -n "$section" ] || { echo "FAILED: README.md has no quick start section"; exit 1; }
# Table rows: | what | `command` |
rows=$(printf '%s\n' "$section" | sed -n 's/^| *\(.*[^ ]\) *| *`\([^`]*\)` *|$/\1\t\2/p')

make_target_defined() {
    grep -Eq "^$1:" "$root/Makefile"
}
check_command() {  # a make target, or a program in the tree, with any arguments after it
    local command=$1 program
    program=${command%% *}
    if [ "$program" = make ]; then
        local target=${command#make }
        make_target_defined "$target" || fail "'$command': the Makefile defines no target '$target'"
    elif [ ! -f "$root/$program" ] || [ ! -x "$root/$program" ]; then
        fail "'$command': $program is not an executable file in the tree"
    else
        echo "ok: $command"
    fi
}

demo=$(printf '%s\n' "$rows" | awk -F'\t' '$1 ~ /demo/ { print $2; exit }')
tests=$(printf '%s\n' "$rows" | awk -F'\t' '$1 ~ /test/ { print $2; exit }')
[ -n "$demo" ] || fail "the quick start table has no demo command"
[ -n "$tests" ] || fail "the quick start table has no test command"
while IFS=$'\t' read -r _ command; do
    [ -n "$command" ] && check_command "$command"
done <<< "$rows"

# The make targets the section names beside the table.
for target in $(printf '%s\n' "$section" | grep -o '`make [a-z-]*`' | sed 's/`make \(.*\)`/\1/' | sort -u); do
    make_target_defined "$target" && echo "ok: make $target" || fail "the Makefile defines no target '$target'"
done

if [ -n "$tests" ] && ! grep -qxF "$tests" "$root/.ci/run"; then
    fail ".ci/run does not run the README's test command '$tests'"
fi

[ "$failures" -eq 0 ]
