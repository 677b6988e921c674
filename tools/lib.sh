# Shared by the scripts of tools/. Source it; it changes to the top of the tree.
# shellcheck shell=bash
set -euo pipefail
TOP=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$TOP"
PATH=$PATH:/usr/sbin:/sbin
export CCACHE_DIR=${CCACHE_DIR:-$TOP/.cache/ccache} CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=pch_defines,time_macros
export DEBIAN_FRONTEND=noninteractive

say() { printf '\n== %s\n' "$*"; }

# install_packages LIST...: the Debian packages named in the lists, when any is missing.
install_packages() {
  local wanted missing
  wanted=$(sed 's/#.*//' "$@" | xargs -n1)
  # shellcheck disable=SC2086  # one word a package
  missing=$(comm -23 <(sort -u <<<"$wanted") \
    <(dpkg-query -W -f '${db:Status-Status} ${Package}\n' $wanted 2>/dev/null | sed -n 's/^installed //p' | sort -u))
  [ -n "$missing" ] || return 0
  say "installing $(wc -w <<<"$missing") packages"
  # The database packages would start their servers; nothing here uses those.
  local policy=/usr/sbin/policy-rc.d made=
  if [ ! -e "$policy" ]; then printf '#!/bin/sh\nexit 101\n' >"$policy" && chmod 755 "$policy" && made=1; fi
  # shellcheck disable=SC2086
  { apt-get -qq update && apt-get -qq install -y --no-install-recommends $missing; } >/dev/null ||
    { [ -z "$made" ] || rm -f "$policy"; echo "cannot install: $missing" >&2; return 1; }
  [ -z "$made" ] || rm -f "$policy"
}

# need_node: node and npm for tests/page. A machine may have newer ones than Debian's, which exclude those.
need_node() {
  if ! command -v npm >/dev/null; then install_packages <(printf 'nodejs\nnpm\n'); fi
}

# build PRESET [TARGET...]: configure once, then build.
build() {
  local preset=$1; shift
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" ${1:+--target "$@"} -- --quiet
}
