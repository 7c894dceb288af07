# shellcheck shell=bash
# Functions that the scripts share. Source it after `set -euo pipefail`.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

say() { printf '%s\n' "$*"; }

fail() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# build_preset PRESET: configures and builds it in build/PRESET.
build_preset() {
    local preset=$1 dir=$root/build/$1 home
    local cache=$dir/CMakeCache.txt fresh=()
    # A build folder that was copied with its tree names the old path, so it needs a new configuration.
    if [[ -r $cache ]]; then
        home=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$cache")
        [[ $home == "$root" ]] || fresh=(--fresh)
    fi
    (
        cd "$root" || exit
        cmake "${fresh[@]}" --preset "$preset" --log-level=WARNING
        cmake --build --preset "$preset" --parallel "$(nproc)"
    )
}
