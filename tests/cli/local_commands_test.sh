#!/bin/sh
# The commands that only read or write the store load neither the network stack nor the keyring
# nor ICU (status bars run them every few seconds); the cloud commands do load the network stack.
# Every object the process loads, dlopen()ed ones included, is named by the dynamic linker's log.
# Usage: local_commands_test.sh ALMANOR
set -u
B=$1
T=$(mktemp -d)
trap 'rm -rf "$T"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
export XDG_CONFIG_HOME="$T/config" XDG_DATA_HOME="$T/data" HOME="$T"
SETTINGS="$XDG_CONFIG_HOME/Almanor/settings.ini"

# Runs almanor with its arguments; prints the shared objects it loaded.
loaded() {
  LD_DEBUG=files LD_DEBUG_OUTPUT="$T/ld" "$B" "$@" > "$T/out" 2> "$T/err"
  rc=$?
  cat "$T"/ld.* | sed -n 's/.*file=\([^ ]*\) .*/\1/p' | sort -u
  rm -f "$T"/ld.*
  return $rc
}

check_local() {
  libs=$(loaded "$@") || fail "almanor $*: exit $? $(cat "$T/err")"
  echo "$libs" | grep -q 'libc\.so' || fail "almanor $*: the log names no library at all"
  bad=$(echo "$libs" | grep -E 'lib(curl|xml2|ical|secret|gnutls|ssl|crypto|krb5|nghttp|ssh|psl|idn2|gtk|gdk|X11|wayland|ayatana|icu)')
  [ -z "$bad" ] || fail "almanor $* loaded: $(echo $bad)"
}

check_local events add Dentist --date 2030-03-03
ID=$(cat "$T/out")
check_local events add Rent --date 2024-01-22 --schedule monthly
# With an account configured the local commands still load nothing of the network.
printf 'cloudServer=http://127.0.0.1:9/\ncloudUser=me\ncloudPasswordCommand=echo x\n' >> "$SETTINGS"
for args in "status" "status --json" "events list" "events edit $ID --alias Teeth" "select next" \
            "cloud status" "cloud status --json" "events delete $ID"; do
  # shellcheck disable=SC2086
  check_local $args
done

# The cloud commands do load it: the check above can see a loaded libcurl.
libs=$(loaded cloud logout) || fail "cloud logout: exit $? $(cat "$T/err")"
echo "$libs" | grep -Eq 'libcurl[-.]' || fail "cloud logout did not load the CalDAV module: $libs"
libs=$(loaded sync)
echo "$libs" | grep -Eq 'libcurl[-.]' && fail "sync without an account loaded the CalDAV module"

# A damaged settings file is told on standard error by every command, the CalDAV adapter's
# included (it logs through the program's own log): standard output carries only results.
for command in "status" "events list" "select next" "cloud status" "cloud logout" "sync"; do
  printf '[com.vostrel.Almanor]\n\001garbage\ncloudServer=http://127.0.0.1:9/\ncloudUser=me\ncloudPasswordCommand=echo x\n' > "$SETTINGS"
  # shellcheck disable=SC2086
  "$B" $command > "$T/out" 2> "$T/err"
  grep -q "damaged settings file" "$T/err" || fail "almanor $command did not tell the damage: $(cat "$T/err")"
  grep -Eq "settings|dropped" "$T/out" && fail "almanor $command told the damage on standard output"
done
exit 0
