#!/usr/bin/env bash
# Writes the site of the public headers and of docs/ to build/dev/docs/html; fails if something public
# is undocumented or something cannot be resolved.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

install_packages
build dev docs
say "open $ROOT/build/dev/docs/html/index.html"
