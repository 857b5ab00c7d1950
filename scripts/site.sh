#!/usr/bin/env bash
# Builds the documents as a site into build/site; a broken link or anchor ends it. Open
# build/site/index.html, no server is needed. The tools are fetched into .local/site the first time.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/setup.sh"

SITE=$ROOT/.local/site

setup_site() {
  local list=$ROOT/scripts/requirements-docs.txt
  local stamp=$SITE/.made_from now
  now=$(sha256sum <"$list")$ROOT
  [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$now" ] && return
  say "Fetching the site's tools into .local/site"
  quietly site-venv "$(find_python)" -m venv "$SITE" || fail "the site's environment could not be made"
  quietly site-pip "$SITE/bin/python" -m pip install --require-hashes -r "$list" ||
    fail "the site's tools could not be installed; is there a network?"
  printf '%s' "$now" >"$stamp"
}

cd "$ROOT"
setup_site
say "Building build/site"
"$SITE/bin/python" scripts/site/pages.py . build/site-pages
quietly site env NO_MKDOCS_2_WARNING=1 "$SITE/bin/python" -m mkdocs build || fail "the site does not build"
# What a page loads has to lie beside it.
! grep -rnoE --include='*.html' '<(link|script|img|iframe)[^>]* (href|src)="https?://[^"]*"' build/site ||
  fail "pages load something from elsewhere"
