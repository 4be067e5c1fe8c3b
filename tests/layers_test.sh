#!/usr/bin/env bash
# Every include of src/ points down the layers:
#   common <- gauss <- moldata <- grid <- elepot <- chelp <- main
# and import and view (the companion tools' code) use only moldata, gauss
# and common. Only the thin entry points src/main/kalvex*.cpp reach the
# tools' libraries. Prints each include that runs upward and fails on any.
set -euo pipefail
root="${1:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)}"

allowed() {
    case "$1" in
        common) echo "common" ;;
        gauss) echo "common gauss" ;;
        moldata) echo "common gauss moldata" ;;
        grid) echo "common gauss moldata grid" ;;
        elepot) echo "common gauss moldata grid elepot" ;;
        chelp) echo "common gauss moldata grid elepot chelp" ;;
        main) echo "common gauss moldata grid elepot chelp main" ;;
        import) echo "common gauss moldata import" ;;
        view) echo "common gauss moldata view" ;;
        *) echo "" ;;
    esac
}

bad=0
count=0
while IFS= read -r file; do
    rel="${file#"$root"/src/}"
    layer="${rel%%/*}"
    ok=" $(allowed "$layer") "
    [[ "$rel" == main/kalvex*.cpp ]] && ok="$ok import view "
    if [ "$ok" = "  " ]; then
        echo "unknown layer: src/$rel"
        bad=1
        continue
    fi
    while IFS= read -r inc; do
        count=$((count + 1))
        target="${inc%%/*}"
        if [[ "$ok" != *" $target "* ]]; then
            echo "upward include: src/$rel includes \"$inc\""
            bad=1
        fi
    done < <(sed -n -E 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"([^"]+\/[^"]+)".*/\1/p' "$file")
done < <(find "$root/src" -name '*.h' -o -name '*.cpp' | sort)

if [ "$bad" -ne 0 ]; then
    echo "includes must point down the layers"
    exit 1
fi
echo "include_layers: $count includes, none runs upward"
