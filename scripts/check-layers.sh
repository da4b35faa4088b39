#!/usr/bin/env bash
# Checks the floors of the library: every source includes the layer's own headers by their
# path from the top of the tree, and only headers of its own floor or a floor below it.
# Public headers (include/) and system or dependency headers may be included from anywhere.
# Usage: scripts/check-layers.sh     (exit 1 and one line per offending include otherwise)
set -euo pipefail
cd "$(dirname "$0")/.."

# Floor of each folder; a folder may include folders of a lower number, and its own.
declare -A floor=([core]=0 [codec]=1 [store]=2 [store/json]=2 [sched]=3
    [av]=4 [event]=4 [net]=4 [media]=4 [api]=5)

folder_of() {  # the floor folder a path lies in, longest match first
    case "$1" in
    store/json/*) echo store/json ;;
    *) echo "${1%%/*}" ;;
    esac
}

bad=0
for dir in "${!floor[@]}"; do
    [ -d "$dir" ] || continue
    for src in "$dir"/*.cpp "$dir"/*.h; do
        [ -e "$src" ] || continue
        while IFS= read -r line; do
            inc=${line#*\"}
            inc=${inc%%\"*}
            if [ -e "include/$inc" ]; then
                continue
            fi
            target=$(folder_of "$inc")
            if [ -z "${floor[$target]+x}" ] || [ ! -e "$inc" ]; then
                echo "$src: \"$inc\" is not a layer header named by its path from the top"
                bad=1
                continue
            fi
            mine=${floor[$dir]}
            theirs=${floor[$target]}
            if [ "$theirs" -gt "$mine" ] || { [ "$theirs" -eq "$mine" ] && [ "$target" != "$dir" ] &&
                [ "${target%%/*}" != "${dir%%/*}" ]; }; then
                echo "$src: includes \"$inc\" from $target, above or beside $dir"
                bad=1
            fi
        done < <(grep -E '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' "$src" || true)
    done
done
if [ "$bad" -ne 0 ]; then
    exit 1
fi
echo "check-layers: every include stays on its floor or below"
