#!/usr/bin/env bash
# Refuses every request for memory and threads of small runs in turn, and tells how each run ended:
# some minutes and thousands of runs. PROGRAM is the release build's if none is named.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
PYTHONPATH=tests/support exec .local/venv/bin/python tests/e2e/refusals.py \
  "${1:-build/release/vk_rund}"
