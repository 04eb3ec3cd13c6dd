#!/usr/bin/env bash
# The shell completions against a store with two events: bash's driven as bash drives it
# (COMP_WORDS, COMP_CWORD, the function, COMPREPLY), fish's asked for the events with their names.
# Usage: completion_test.sh ALMANOR COMPLETIONS_FOLDER
set -u
T=$(mktemp -d)
trap 'rm -rf "$T"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
export HOME=$T XDG_CONFIG_HOME=$T/config XDG_DATA_HOME=$T/data
mkdir "$T/bin" && ln -s "$1" "$T/bin/almanor" && export PATH=$T/bin:$PATH
# A name that looks like the start of another event in the JSON, and one with a colon.
trip_name='Trip "A"},{"id":"00000000-0000-0000-0000-000000000000'
trip=$(almanor events add "$trip_name" --date 2031-01-05) || fail "events add"
rent=$(almanor events add "Rent: flat" --date 2024-01-31 --schedule monthly) || fail "events add"
ids=$(printf '%s\n' "$trip" "$rent" | sort | tr '\n' ' ')

source "$2/almanor.bash"
# The words typed, the last one the word being completed, then what bash is to offer (sorted).
while IFS='|' read -r line expected; do
  read -ra COMP_WORDS <<<"$line"
  [[ $line == *" " ]] && COMP_WORDS+=("")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _almanor
  got=$(printf '%s\n' "${COMPREPLY[@]}" | sed '/^$/d' | sort | tr '\n' ' ')
  [ "$got" = "$expected" ] || fail "'$line': offered '$got', expected '$expected'"
done <<EOF
almanor |cloud events select status sync 
almanor ev|events 
almanor events |add delete edit export import list 
almanor cloud lo|login logout 
almanor status -|--help --json 
almanor events add Trip --count f|friday-before 
almanor events add Trip --count = m|monday-after 
almanor events edit $trip --schedule |annually monthly none weekly 
almanor events edit $trip --alias x --|--alias --count --date --help --name --schedule 
almanor events delete |$ids
almanor events edit --date = 2031-01-01 |$ids
almanor select |${ids}next random rotate 
almanor select $trip |--help 
EOF

# fish shows each event's name beside its id.
fish --no-config -c "source '$2/almanor.fish'; complete -C 'almanor events delete '" 2>&1 |
  sort >"$T/fish"
printf '%s\t%s\n' "$trip" "$trip_name" "$rent" "Rent: flat" | sort | diff -u - "$T/fish" >&2 ||
  fail "fish offered other events (- expected, + offered)"
