#!/usr/bin/env bash
# Unpacks the Debian source package of the installed protobuf runtime into build/protobuf-src (patches
# applied), for the wheel's build (VELTRA_PRIVATE_PROTOBUF), which compiles protobuf's lite runtime into
# libveltradata.so. The distribution's libprotobuf.a cannot go into a shared object: its arena code uses
# thread-local storage in the executable-only model. The same version as the installed headers and protoc keeps
# the generated code and the runtime in step. A run with the sources in place only checks.
set -euo pipefail
cd "$(dirname "$0")/.."

DEST=build/protobuf-src
binary=libprotobuf-dev
version=$(dpkg-query -W -f='${Version}' "$binary" 2>/dev/null) ||
  { echo "protobuf_source: $binary is not installed (scripts/setup.sh installs it)" >&2; exit 1; }
source=$(dpkg-query -W -f='${source:Package}' "$binary")
if [ "$(cat "$DEST/.debian-version" 2>/dev/null)" = "$source $version" ]; then
  exit 0
fi

echo "== fetching the Debian source package $source $version into $DEST"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The machine's own package sources with their source indexes, in a private apt state, so that the system's
# configuration and package lists stay as they are.
mkdir -p "$work/parts" "$work/lists/partial" "$work/cache/archives/partial" "$work/get"
for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
  [ -f "$f" ] && sed -n 's/^[[:space:]]*deb[[:space:]]/deb-src /p' "$f"
done >"$work/parts/src.list"
for f in /etc/apt/sources.list.d/*.sources; do
  [ -f "$f" ] && sed 's/^Types:.*$/Types: deb-src/' "$f" >"$work/parts/$(basename "$f")"
done
apt_private=(-o Dir::Etc::SourceList=/dev/null -o "Dir::Etc::SourceParts=$work/parts"
  -o "Dir::State::Lists=$work/lists" -o "Dir::Cache=$work/cache" -o APT::Sandbox::User=root)
apt-get -q "${apt_private[@]}" update >/dev/null
(cd "$work/get" && apt-get -q "${apt_private[@]}" source --download-only "$source=$version" >/dev/null)
rm -rf "$DEST"
mkdir -p "$(dirname "$DEST")"
dpkg-source --no-check -x "$work"/get/*.dsc "$work/src" >/dev/null
mv "$work/src" "$DEST"
echo "$source $version" >"$DEST/.debian-version"
