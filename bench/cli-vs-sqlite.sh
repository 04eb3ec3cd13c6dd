#!/usr/bin/env bash
# Times `almanor status` and `almanor events list --json` as whole processes against the floor of
# the sqlite3 shell reading the same rows in the same order: over 20 events (a status bar's
# everyday store) and over 10,000. The commands alternate, a few runs each, round after round, so
# that every one sees the same machine. Prints the ratios and the goals.
# Usage: bench/cli-vs-sqlite.sh [path/to/almanor]   (ROUNDS=N, RUNS=N per round)
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/deps.sh"
almanor="${1:-}"
if [ -z "$almanor" ]; then
  cmake -S "$root" -B "$root/build/release" -DCMAKE_BUILD_TYPE=Release -DALMANOR_TESTS=OFF \
        -DALMANOR_BENCHMARKS=OFF >/dev/null
  cmake --build "$root/build/release" -j"$(nproc)" --target almanor >/dev/null
  almanor="$root/build/release/almanor"
fi

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
export HOME="$work" TZ="${TZ:-Europe/Prague}"
floor_query='SELECT * FROM "events" WHERE ("deleted" IS NULL) ORDER BY "date", "name"'

# A store of N events: every schedule and count method, dates from 1990 to 2030, a third with
# aliases; shown in "next upcoming" mode.
make_store() {
  local n=$1 dir="$work/$1"
  mkdir -p "$dir/data/Almanor" "$dir/config/Almanor"
  sqlite3 "$dir/data/Almanor/EventsV1.db" <<SQL
CREATE TABLE IF NOT EXISTS "events" ("id" TEXT PRIMARY KEY NOT NULL, "name" TEXT NOT NULL, "alias" TEXT, "date" TEXT NOT NULL, "schedule" INTEGER NOT NULL, "method" INTEGER NOT NULL, "created" TEXT NOT NULL, "updated" TEXT NOT NULL, "deleted" TEXT, "sync_id" TEXT, "sync_date" TEXT, "sync_dirty" INTEGER NOT NULL DEFAULT 0, "sync_deleted" INTEGER NOT NULL DEFAULT 0);
WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < $((n - 1)))
INSERT INTO "events" ("id", "name", "alias", "date", "schedule", "method", "created", "updated")
SELECT upper(hex(randomblob(4)) || '-' || hex(randomblob(2)) || '-4' || substr(hex(randomblob(2)), 2) || '-a'
             || substr(hex(randomblob(2)), 2) || '-' || hex(randomblob(6))),
       'Event ' || i,
       CASE WHEN i % 3 = 0 THEN 'E' || i END,
       strftime('%Y-%m-%dT%H:%M:%f', '1990-01-01', '+' || (abs(random()) % 14600) || ' days',
                '+' || (abs(random()) % 86400) || ' seconds'),
       i % 4, (i / 4) % 4,
       strftime('%Y-%m-%dT%H:%M:%f', 'now'), strftime('%Y-%m-%dT%H:%M:%f', 'now')
FROM n;
SQL
  printf '[com.vostrel.Almanor]\nbuildVersion=1\nselectedEvent=C72773F5-D96E-478B-92FE-5BB5DDD62102\n' \
    > "$dir/config/Almanor/settings.ini"
}
make_store 20
make_store 10000

# name|store|command, run in this order in every round.
commands=(
  "sqlite3-20|20|sqlite3 $work/20/data/Almanor/EventsV1.db '$floor_query'"
  "status-20|20|$almanor status"
  "sqlite3-10000|10000|sqlite3 $work/10000/data/Almanor/EventsV1.db '$floor_query'"
  "status-10000|10000|$almanor status"
  "list-json-10000|10000|$almanor events list --json"
)
for round in $(seq "${ROUNDS:-8}"); do
  for entry in "${commands[@]}"; do
    IFS='|' read -r name store command <<<"$entry"
    XDG_DATA_HOME="$work/$store/data" XDG_CONFIG_HOME="$work/$store/config" \
      hyperfine -N --warmup 2 --runs "${RUNS:-5}" --style none --export-json "$work/$name.$round.json" \
      "$command" >/dev/null 2>>"$work/hyperfine.log" || { cat "$work/hyperfine.log" >&2; exit 1; }
  done
done

/usr/bin/python3 - "$work" <<'PY'
import glob, json, os, statistics, sys
work = sys.argv[1]
times = {}
for path in glob.glob(os.path.join(work, "*.json")):
    name = os.path.basename(path).split(".")[0]
    times.setdefault(name, []).extend(json.load(open(path))["results"][0]["times"])
med = {name: statistics.median(t) * 1000 for name, t in times.items()}
print("%-16s %9s %7s %7s" % ("command", "median ms", "ratio", "goal"))
for name, floor, goal in (("sqlite3-20", None, None), ("status-20", "sqlite3-20", 1.5),
                          ("sqlite3-10000", None, None), ("status-10000", "sqlite3-10000", 1.0),
                          ("list-json-10000", "sqlite3-10000", 2.0)):
    if floor is None:
        print("%-16s %9.2f" % (name, med[name]))
    else:
        ratio = med[name] / med[floor]
        print("%-16s %9.2f %7.2f %7s %s" % (name, med[name], ratio, "<= %.1f" % goal, "met" if ratio <= goal else "NOT met"))
print("\n%d runs of each, alternating by rounds; TZ=%s." % (len(times["status-20"]), os.environ["TZ"]))
PY
