#!/usr/bin/env bash
# Times `almanor status` and `almanor events list --json` as whole processes over a store of
# 10,000 events, against the floor of the sqlite3 shell reading the same rows in the same order,
# and prints the ratios. Usage: bench/cli-vs-sqlite.sh [path/to/almanor]
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
export HOME="$work" XDG_DATA_HOME="$work/data" XDG_CONFIG_HOME="$work/config" TZ="${TZ:-Europe/Prague}"
db="$XDG_DATA_HOME/Almanor/EventsV1.db"
mkdir -p "$(dirname "$db")" "$XDG_CONFIG_HOME/Almanor"

# 10,000 events: every schedule and count method, dates from 1990 to 2030, a third with aliases.
sqlite3 "$db" <<'SQL'
CREATE TABLE IF NOT EXISTS "events" ("id" TEXT PRIMARY KEY NOT NULL, "name" TEXT NOT NULL, "alias" TEXT, "date" TEXT NOT NULL, "schedule" INTEGER NOT NULL, "method" INTEGER NOT NULL, "created" TEXT NOT NULL, "updated" TEXT NOT NULL, "deleted" TEXT, "sync_id" TEXT, "sync_date" TEXT, "sync_dirty" INTEGER NOT NULL DEFAULT 0, "sync_deleted" INTEGER NOT NULL DEFAULT 0);
WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 9999)
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
  > "$XDG_CONFIG_HOME/Almanor/settings.ini"

floor_query='SELECT * FROM "events" WHERE ("deleted" IS NULL) ORDER BY "date", "name"'
csv="$work/times.csv"
hyperfine -N --warmup 5 --runs "${RUNS:-40}" --style none --export-csv "$csv" \
  -n sqlite3 "sqlite3 $db '$floor_query'" \
  -n status-next "$almanor status" \
  -n list-json "$almanor events list --json" >/dev/null

# Also the fixed mode: one event shown, the list still read in full.
first_id="$(sqlite3 "$db" 'SELECT "id" FROM "events" ORDER BY "date", "name" LIMIT 1')"
"$almanor" select "$first_id" >/dev/null
hyperfine -N --warmup 5 --runs "${RUNS:-40}" --style none --export-csv "$work/fixed.csv" \
  -n status-fixed "$almanor status" >/dev/null
tail -n +2 "$work/fixed.csv" >> "$csv"

awk -F, 'NR > 1 { mean[$1] = $2 * 1000; order[n++] = $1 }
  END {
    base = mean["sqlite3"]
    printf "%-14s %10s %8s\n", "command", "mean ms", "ratio"
    for (i = 0; i < n; i++) printf "%-14s %10.2f %8.2f\n", order[i], mean[order[i]], mean[order[i]] / base
    printf "\n10,000 events, TZ=%s. Targets: status <= 1.00 x sqlite3, events list --json <= 2.00 x sqlite3.\n", ENVIRON["TZ"]
  }' "$csv"
