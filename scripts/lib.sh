# shellcheck shell=bash
# What the scripts share. Sourced after `set -euo pipefail`.

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
    # A tree that was copied together with its build folder cannot go on with it.
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
