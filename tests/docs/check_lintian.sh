#!/bin/sh
# Runs lintian on the Debian packages made by build_packages.sh (and on their
# -dbgsym packages) with every tag shown, and fails on any error or warning.
# Usage: check_lintian.sh packages-dir
set -eu
packages=$1
if ! command -v lintian > /dev/null; then
    echo "lintian is not installed (scripts/install-deps test installs it)"
    exit 1
fi
set --
for package in "$packages"/*.deb "$packages"/*.ddeb; do
    [ -f "$package" ] && set -- "$@" "$package"
done
[ "$#" -gt 0 ] || { echo "no packages in $packages"; exit 1; }
status=0
lintian --pedantic --display-info --fail-on error,warning "$@" > "$packages/lintian.log" 2>&1 ||
    status=$?
# lintian warns that it runs as root; that says nothing about the packages.
grep -v '^running with root privileges is not recommended!$' "$packages/lintian.log" || true
if [ "$status" -ne 0 ]; then
    echo "lintian finds errors or warnings (status $status)"
    exit 1
fi
echo "lintian --pedantic accepts $# packages"
