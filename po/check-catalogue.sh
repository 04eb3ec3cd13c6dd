#!/bin/sh
# Fails unless the catalogue translates every message of the template, none of them fuzzy, and
# keeps each message's placeholders (msgfmt --check).
# Usage: check-catalogue.sh LANGUAGE.po TEMPLATE.pot
set -eu
statistics=$(LC_ALL=C msgfmt --check --statistics --output-file=/dev/null "$1" 2>&1) || {
  echo "$statistics" >&2
  exit 1
}
echo "$1: $statistics"
case $statistics in
*fuzzy* | *untranslated*) exit 1 ;;
esac
# Messages of the template that the catalogue lacks, or has only as fuzzy or untranslated.
msgcmp "$1" "$2"
