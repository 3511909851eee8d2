#!/usr/bin/env bash
# Tries what can go wrong: searches for inputs that break the library.
#   scripts/campaign.sh              an hour
#   scripts/campaign.sh --minutes N
#   scripts/campaign.sh --short      a minute
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root

seconds=3600
case "$#:${1:-}" in
  0:) ;;
  1:--short) seconds=60 ;;
  2:--minutes) seconds=$((${2:?} * 60)) ;;
  *)
    echo "usage: scripts/campaign.sh [--minutes N | --short]" >&2
    exit 2
    ;;
esac

exec "$root/scripts/fuzz.sh" --seconds "$seconds"
