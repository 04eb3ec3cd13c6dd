#!/bin/sh
# The cloud commands against a real Radicale and, inside a private D-Bus session, a real keyring.
# Usage: cloud_cli_test.sh ALMANOR
set -u
B=$1
T=$(mktemp -d)
fail() { echo "FAIL: $*" >&2; exit 1; }
# Radicale through the tests' harness, which kills it when ended, or when fd 3 closes with us.
mkfifo "$T/in" "$T/url"
/usr/bin/python3 -S "$(dirname "$0")/../support/harness.py" radicale "$T/radicale" <"$T/in" >"$T/url" &
H=$!
cleanup() { kill "$H" 2>/dev/null; wait; rm -rf "$T"; }
trap cleanup EXIT
exec 3>"$T/in"
read -r URL <"$T/url" || fail "Radicale did not start"

export XDG_CONFIG_HOME="$T/c1" XDG_DATA_HOME="$T/d1"
"$B" cloud login "$URL" --user alice --password-command "echo wrong" 2>"$T/err"; rc=$?
[ $rc = 2 ] && [ "$(wc -l < "$T/err")" = 1 ] || { cat "$T/err" >&2; fail "wrong password: $rc"; }
"$B" cloud login "http://127.0.0.1:9/" --user alice --password-command "echo s3cret" 2>/dev/null; [ $? = 2 ] || fail "unreachable server accepted"
# TLS is verified: a self-signed server is refused, and plain http only goes to this machine.
openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=127.0.0.1 -keyout "$T/key" -out "$T/cert" -days 2 2>/dev/null
S=$(/usr/bin/python3 -c 'import socket;s=socket.socket();s.bind(("127.0.0.1",0));print(s.getsockname()[1])')
openssl s_server -accept "127.0.0.1:$S" -cert "$T/cert" -key "$T/key" -www -quiet >/dev/null 2>&1 &
TLS=$!
for i in $(seq 100); do curl -sk -o /dev/null "https://127.0.0.1:$S/" && break; sleep 0.1; done
"$B" cloud login "https://127.0.0.1:$S/" --user alice --password-command "echo s3cret" 2>"$T/err"; rc=$?
kill $TLS
[ $rc = 2 ] && [ "$(wc -l < "$T/err")" = 1 ] && grep -qi certificate "$T/err" || { cat "$T/err" >&2; fail "self-signed server: $rc"; }
# A URL that could never work, or plain http elsewhere, is refused before any password is asked
# for (stdin is empty here).
for bad in notaurl ftp://h/ https://u:p@h/ http://192.0.2.1/; do
  "$B" cloud login "$bad" --user alice </dev/null 2>"$T/err"; rc=$?
  [ $rc = 2 ] && ! grep -q "no password given" "$T/err" || { cat "$T/err" >&2; fail "bad URL $bad: $rc"; }
done
grep -q cloudServer "$XDG_CONFIG_HOME/Almanor/settings.ini" 2>/dev/null && fail "stored after a refused login"
"$B" sync 2>"$T/err"; [ $? = 1 ] || fail "sync without account"
grep -q "no cloud account; run almanor cloud login URL" "$T/err" || fail "sync without account message"

# The keyring: stdin password, stored under the schema, used by sync, removed by logout.
# Under the usual umask the account and the events are still the user's alone, in a settings
# folder an older build left open too; a logout that cannot be saved says so and keeps both.
export XDG_CONFIG_HOME="$T/c3" XDG_DATA_HOME="$T/d3"
mkdir -m 755 "$T/c3" "$T/c3/Almanor"
dbus-run-session -- sh -c '
  umask 022
  printf keyring-unlock | gnome-keyring-daemon --unlock --components=secrets --daemonize >/dev/null || exit 5
  # Until it owns its name, a client would have D-Bus start a second, locked, keyring.
  gdbus wait --session --timeout 10 org.freedesktop.secrets || exit 5
  "$0" events add Trip --date 2027-03-14 >/dev/null || exit 6
  echo s3cret | "$0" cloud login "$1" --user alice 2>/dev/null || exit 6
  secret-tool lookup server "$1" user alice | grep -qx s3cret || exit 7
  modes=$(stat -c %a "$XDG_CONFIG_HOME" "$XDG_CONFIG_HOME/Almanor" "$XDG_CONFIG_HOME/Almanor/settings.ini")
  [ "$(echo $modes)" = "755 700 600" ] || exit 14
  # (Its lines go through a pipe: the size limit would stop them in a file.)
  said=$( (trap "" XFSZ; ulimit -f 0; "$0" cloud logout; echo "exit $?") 2>&1 | cat)
  [ "$(echo "$said" | sed -n "1s/: .*//p;2p")" = "Failed to save settings to $XDG_CONFIG_HOME/Almanor/settings.ini
exit 3" ] && [ "$(echo "$said" | wc -l)" = 2 ] || { echo "$said" >&2; exit 15; }
  secret-tool lookup server "$1" user alice | grep -qx s3cret || exit 16
  "$0" cloud status | grep -q "^Server: " || exit 17
  "$0" sync 2>/dev/null || exit 8
  "$0" cloud status --json | grep -q "\"pending\":{\"inserted\":0," || exit 9
  [ "$(echo $(stat -c %a "$XDG_DATA_HOME/Almanor" "$XDG_DATA_HOME/Almanor/EventsV1.db"))" = "700 600" ] || exit 18
  "$0" cloud logout || exit 10
  secret-tool lookup server "$1" user alice && exit 11
  "$0" cloud status --json | grep -q "\"server\":null" || exit 12
  "$0" events list | grep -q Trip || exit 13
' "$B" "$URL" 2>"$T/err"
rc=$?
[ $rc = 0 ] || { cat "$T/err" >&2; fail "keyring step $rc"; }
grep -rq s3cret "$T/c3" "$T/d3" && fail "password in a file"
echo ok
