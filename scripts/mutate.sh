#!/usr/bin/env bash
# Mutation run: how many seeded, sampled mutants of the layer's and the host
# platform's hand-written sources the tests kill, per file. Works on a copy of
# the tracked tree in build-mutate/, so the sources are never edited.
#   scripts/mutate.sh [--count N] [--seed S] [--e2e REGEX] [--list]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/install-deps.sh"
exec python3 "$root/scripts/mutate.py" "$@"
