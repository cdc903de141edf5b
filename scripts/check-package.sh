#!/usr/bin/env bash
# Builds the .deb and checks it as a user meets it: unpacked into a root of its own, the
# command runs and writes a reply's request without sending it, the manual page is valid and
# names every command, and the completions and documentation are in place.
#
#   scripts/check-package.sh [BUILD_DIR]
#
# With BUILD_DIR (an existing build directory, such as scripts/test.sh's `build`) the package
# is made from it; without, the command alone is built in build-package first.
set -euo pipefail
cd "$(dirname "$0")/.."

fail() {
  echo "check-package: $*" >&2
  exit 1
}

build=${1:-build-package}
if [ $# -eq 0 ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DLUMORA_BUILD_TESTS=OFF -DLUMORA_BUILD_BENCH=OFF >/dev/null
fi
[ -f "$build/CMakeCache.txt" ] || fail "$build is not a build directory"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --build "$build" -j "$(nproc)" >"$tmp/build.log" 2>&1 || { cat "$tmp/build.log"; fail "the build failed"; }
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
deb=$build/lumora_${version}_$(dpkg --print-architecture).deb
rm -f "$deb"
(cd "$build" && cpack -G DEB) >"$tmp/cpack.log" 2>&1 || { cat "$tmp/cpack.log"; fail "cpack failed"; }
[ -f "$deb" ] || fail "cpack made no $deb"
root=$tmp/root
dpkg-deb -x "$deb" "$root"
lumora=$root/usr/bin/lumora

# The control fields, and dependencies that are real packages of this system.
field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = lumora ] || fail "Package is '$(field Package)'"
[ "$(field Version)" = "$version" ] || fail "Version is '$(field Version)', not $version"
[ "$(field Section)" = mail ] || fail "Section is '$(field Section)'"
[ -n "$(field Maintainer)" ] || fail "no Maintainer"
depends=$(field Depends)
for library in libc6 libstdc++6 libcurl4 libsqlite3-0 libncursesw6; do
  [[ ", $depends," == *", $library "* || ", $depends," == *", $library,"* ]] ||
    fail "Depends does not name $library: $depends"
done
for name in $(sed 's/([^)]*)//g; s/[,|]/ /g' <<<"$depends"); do
  dpkg-query -W "$name" >/dev/null 2>&1 || fail "Depends names $name, which is not installed here"
done
outside=$(dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '^\./usr/' | grep -v '^\./$' || true)
[ -z "$outside" ] || fail "files outside /usr: $outside"

# libcurl is loaded by the first request, not linked: a command that sends nothing does not pay
# for loading it and the thirty libraries behind it. Depends names it all the same (above).
needed=$(objdump -p "$lumora" | awk '$1 == "NEEDED" {print $2}')
[ -n "$needed" ] || fail "objdump lists no libraries the command needs"
if grep -q '^libcurl' <<<"$needed"; then
  fail "the command links libcurl, which it should load only when it sends: $(echo $needed)"
fi

# The command from the package.
[ "$("$lumora" --version)" = "lumora $version" ] || fail "lumora --version: $("$lumora" --version)"
XDG_CONFIG_HOME=$tmp/config XDG_DATA_HOME=$tmp/data \
  "$lumora" reply --dry-run --model gpt-4o examples/reply-to-meeting.eml >"$tmp/request.json" \
  </dev/null || fail "the dry run failed"
grep -q '"service": "openai"' "$tmp/request.json" || fail "the dry run wrote: $(cat "$tmp/request.json")"
grep -q '"model": "gpt-4o"' "$tmp/request.json" || fail "the dry run's request names no gpt-4o"

# The Thunderbird pieces: the native host answers a question over native messaging, the add-on
# is there, and `lumora integrate thunderbird` finds both beside the command.
host=$root/usr/bin/lumora-native-host
[ "$("$host" --version)" = "lumora-native-host $version" ] || fail "lumora-native-host --version"
answer=$(printf '\x12\x00\x00\x00{"type":"headers"}' | "$host" | tail -c +5)
[[ "$answer" == *'"X-CustomHeader":["This ia a custom header."]'* ]] ||
  fail "lumora-native-host answered: $answer"
xpi=$root/usr/share/lumora/lumora.xpi
[ -f "$xpi" ] || fail "no add-on at /usr/share/lumora/lumora.xpi"
unzip -p "$xpi" manifest.json | grep -q '"id": "lumora@zorvel.tech"' || fail "the add-on's id"
HOME=$tmp/home "$lumora" integrate thunderbird >"$tmp/integrate.txt" ||
  fail "lumora integrate thunderbird failed"
grep -qF "$xpi" "$tmp/integrate.txt" || fail "integrate does not point at the add-on: $(cat "$tmp/integrate.txt")"
grep -qF "\"path\": \"$host\"" "$tmp/home/.mozilla/native-messaging-hosts/tech.zorvel.lumora.json" ||
  fail "the manifest does not name the packaged host"

# The manual page: valid, and a section for every command `lumora --help` lists.
man=$root/usr/share/man/man1/lumora.1.gz
[ -f "$man" ] || fail "no manual page"
if command -v groff >/dev/null; then
  warnings=$(zcat "$man" | groff -man -Tutf8 -z -ww 2>&1)
  [ -z "$warnings" ] || fail "groff's warnings on lumora(1): $warnings"
elif command -v mandoc >/dev/null; then
  zcat "$man" | mandoc -T lint -W warning || fail "mandoc's warnings on lumora(1)"
else
  echo "check-package: neither groff nor mandoc is installed; the page's markup is not checked" >&2
fi
commands=$("$lumora" --help | sed -n '/^Commands:/,/^$/s/^  \([a-z-]*\) .*/\1/p')
[ -n "$commands" ] || fail "lumora --help lists no commands"
for command in $commands; do
  zcat "$man" | grep -qxF ".SS ${command//-/\\-}" || fail "lumora(1) has no section for $command"
done

# The completions: they load, and offer every command.
bash_completion=$root/usr/share/bash-completion/completions/lumora
zsh_completion=$root/usr/share/zsh/vendor-completions/_lumora
[ -f "$bash_completion" ] || fail "no bash completion"
[ -f "$zsh_completion" ] || fail "no zsh completion"
offered=$(bash --norc --noprofile -c 'source "$1"; COMP_WORDS=(lumora ""); COMP_CWORD=1; _lumora
  printf "%s\n" "${COMPREPLY[@]}"' bash "$bash_completion")
for command in $commands; do
  grep -qx -- "$command" <<<"$offered" || fail "the bash completion does not offer $command"
done
if command -v zsh >/dev/null; then
  zsh -n "$zsh_completion" || fail "the zsh completion does not parse"
fi

# The documentation, laid out as in the source tree.
for doc in README.md docs/*.md docs/integrations/*.md; do
  [ -f "$root/usr/share/doc/lumora/$doc" ] || fail "no $doc in /usr/share/doc/lumora"
done

echo "check-package: $(basename "$deb") ($(du -k "$deb" | cut -f1) KiB) is good; Depends: $depends"
