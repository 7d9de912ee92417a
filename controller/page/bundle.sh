#!/bin/sh
# Makes the page's script and style, one file each, from its sources and from what npm has of
# package-lock.json; and pictures of its icon for home screens that take no SVG.
#
#   bundle.sh fetch SOURCES FOLDER    has npm put what it names into FOLDER
#   bundle.sh make SOURCES FOLDER     makes FOLDER/app.js and FOLDER/style.css
#   bundle.sh icons SOURCES FOLDER    makes FOLDER/icon-SIZE.png and FOLDER/maskable-SIZE.png
set -eu

fail() {
    echo "page: $*" >&2
    exit 1
}

fetch() {
    command -v npm >/dev/null || fail "npm is missing, which fetches what the controller's page is made with"
    mkdir -p "$folder"
    cp "$sources/package.json" "$sources/package-lock.json" "$folder"
    (cd "$folder" && npm ci --ignore-scripts --omit=dev --no-audit --no-fund --loglevel=error) >&2 ||
        fail "npm could not fetch what controller/page/package-lock.json names: is its registry within reach?"
}

# The licences of what comes along are part of the file.
notices() {
    echo '/*! The page of the nuvio-connect controller, and in it'
    for name in preact @preact/signals sortablejs; do
        echo
        echo "$name"
        cat "$folder/node_modules/$name/LICENSE"
    done
    echo '*/'
}

make() {
    NODE_PATH=$folder/node_modules "$folder/node_modules/.bin/esbuild" \
        "$sources/app.tsx" "$sources/style.css" --bundle --minify --format=esm --target=es2022 \
        --tsconfig="$sources/tsconfig.json" --banner:js="$(notices)" --outdir="$folder" --log-level=warning
}

# A maskable one is filled to its corners, and what counts is in the middle four fifths.
icons() {
    command -v rsvg-convert >/dev/null || fail "rsvg-convert is missing (librsvg2-bin), which draws the page's icons"
    ground=$(sed -n 's/.*<rect .*fill="\(#[0-9a-f]*\)".*/\1/p' "$sources/icon.svg")
    for size in 192 512; do
        rsvg-convert --width=$size --height=$size --output="$folder/icon-$size.png" "$sources/icon.svg"
        rsvg-convert --width=$((size * 4 / 5)) --height=$((size * 4 / 5)) --left=$((size / 10)) --top=$((size / 10)) \
            --page-width=$size --page-height=$size --background-color="$ground" \
            --output="$folder/maskable-$size.png" "$sources/icon.svg"
    done
}

sources=$2
folder=$3
"$1"
