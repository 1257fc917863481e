# Sourced by the other tools: goes to the root of the checkout, wherever it was called from, and sets what builds share.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd -P) || exit 1
cd "$root" || exit 1
exec </dev/null # nothing here asks
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
export CTEST_PARALLEL_LEVEL=${CTEST_PARALLEL_LEVEL:-$(nproc)}
# Clones in different folders share compiled files where ccache is present.
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$root} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-1}

Say() { printf '\n== %s\n' "$*"; }
