#!/bin/bash
# tidy.sh BUILD [tests]: runs clang-tidy over the sources that the clang build in directory BUILD
# compiles; over the tests, which take twice as long as all others, only if asked to.
# What has passed is remembered by the content of the source, of the tree's headers that it
# includes, of the settings and of this script, so only changed files are looked at again.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1
which=${2:-}
passed=$build/tidy-passed
mkdir -p "$passed"

# One line for each object that the build knows: its source, which may stand for several of the
# tree's, then the tree's files in it.
sourcesWithHeaders() {
    ninja -C "$build" -t deps | awk -v root="$PWD/" '
        /^[^ ]/ { if (line) print line; line = "" }
        /^    / {
            path = $1
            if (index(path, root) == 1) path = substr(path, length(root) + 1)
            if (!line) line = path ~ /\.c(pp|xx)$/ ? path : ""
            else if (path !~ /^(\/|build\/)/) line = line " " path
        }
        END { if (line) print line }'
}

tidy() {
    local source=$1 key settings=()
    # Tests that are compiled together are named by a file in the build's directory.
    [[ $source != "$build"/tests/*/Unity/* ]] || settings=(--config-file=tests/.clang-tidy)
    key=$(cat "$@" .clang-tidy tests/.clang-tidy scripts/tidy.sh | sha256sum | cut -d ' ' -f 1)
    [ ! -e "$passed/$key" ] || return 0
    echo "clang-tidy $source"
    clang-tidy --quiet -p "$build" "${settings[@]}" "$source" 2>&1 | { grep -v ' warnings\? generated\.$' || true; }
    touch "$passed/$key"
}

export -f tidy
export build passed
sourcesWithHeaders | if [ "$which" = tests ]; then cat; else grep -vE "^($build/)?tests/"; fi |
    xargs -P "$(nproc)" -L 1 bash -euo pipefail -c 'tidy "$@"' tidy
