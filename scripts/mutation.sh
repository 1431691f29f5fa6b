#!/usr/bin/env bash
# Mutation campaign (scripts/mutation.py): one-line mutants of the product
# sources, each built and run against the test suite; the last line printed is
# the score. Not run by CI: the default 90 mutants take about 45 minutes on
# two cores. Usage: scripts/mutation.sh [--seed S] [--count N] [--files GLOB]
# [--only FILE:LINE] [--list] [--timeout SECONDS]   (--help for all)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --mutation
exec python3 scripts/mutation.py "$@"
