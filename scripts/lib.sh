# What the scripts beside this file share: they source it and never run it.
# shellcheck shell=bash disable=SC2034  # variables are for those who source this

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root" || exit 1
jobs=$(nproc 2>/dev/null || echo 2)

# Every Debian package that the project needs. debian/control repeats those that its own packages are built with.
build_packages=(
  g++ cmake ninja-build pkgconf ccache
  android-liblog-dev android-libutils-dev libsystemd-dev
  libcli11-dev nlohmann-json3-dev libglib2.0-dev libmicrohttpd-dev
  libgtest-dev libgmock-dev libbenchmark-dev
)
packaging_packages=(build-essential debhelper dpkg-dev)
packaging_check_packages=(binutils file lintian debootstrap)
check_packages=(
  clang-14 clang-format-14 clang-tidy-14 lld-14 libclang-rt-14-dev libc++-14-dev libc++abi-14-dev
  binutils shellcheck doxygen python3 python3-jsonschema
  groff mandoc blueprint-tools
  "${packaging_packages[@]}" "${packaging_check_packages[@]}"
)
web_packages=(chromium chromium-driver python3-selenium)
cross_packages=(g++-aarch64-linux-gnu g++-arm-linux-gnueabihf qemu-user)

say() { printf '==> %s\n' "$*"; }

die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Runs "$@" with its output in a log file. On failure the end of the log is shown, then one line that says what failed.
quietly() {
  local what=$1 log=$2
  shift 2
  mkdir -p "$(dirname "$log")"
  "$@" >>"$log" 2>&1 </dev/null && return
  tail -n 40 "$log" >&2
  die "$what failed; the whole log is $log"
}

# Sets `missing` to those of the named Debian packages that are not installed.
find_missing() {
  local package
  missing=()
  command -v dpkg-query >/dev/null || die "this is not a Debian system; install what matches these Debian packages: $*"
  for package; do
    # Several versions or architectures of one package are several lines.
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
  done
}

# Ends with what to install, for what has no need to change the machine by itself.
require_installed() {
  local missing
  find_missing "$@"
  ((${#missing[@]} == 0)) || die "packages are missing; as root, run: apt-get install ${missing[*]}"
}

# Installs those of the named Debian packages that are missing. Needs neither root nor the network when none is.
install_missing() {
  local missing as_root=() log=$root/build/apt.log
  find_missing "$@"
  ((${#missing[@]})) || return 0
  if (($(id -u))); then
    command -v sudo >/dev/null || die "neither root nor sudo; as root, run: apt-get install ${missing[*]}"
    sudo -n true 2>/dev/null || sudo -v || die "sudo refused; as root, run: apt-get install ${missing[*]}"
    as_root=(sudo)
  fi
  say "installing with apt: ${missing[*]}"
  mkdir -p build && : >"$log"
  local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -y -o DPkg::Lock::Timeout=300)
  # Package lists that are missing or old enough to name files that are gone are the usual reason for a failure.
  "${apt[@]}" install --no-install-recommends "${missing[@]}" >>"$log" 2>&1 </dev/null && return
  quietly "apt-get update" "$log" "${apt[@]}" update
  quietly "installing ${missing[*]}" "$log" "${apt[@]}" install --no-install-recommends "${missing[@]}"
}

# Configures one preset of CMakePresets.json in build/<preset>. Where nothing is built yet, several sources are compiled
# at once, in less than half the time. A folder that is there stays as it is: ORVEL_UNITY in the environment changes it.
configure_preset() {
  local log=$root/build/$1/build.log cache=()
  [[ -e build/$1/CMakeCache.txt ]] || cache+=("-DORVEL_UNITY=ON")
  [[ -z ${ORVEL_UNITY-} ]] || cache+=("-DORVEL_UNITY=$ORVEL_UNITY")
  rm -f "$log"
  command -v ccache >/dev/null && cache+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  quietly "configuring ($1)" "$log" cmake --preset "$1" "${cache[@]}"
}

# Configures and builds one preset; further arguments are targets.
build_preset() {
  local preset=$1
  shift
  say "building ($preset) in build/$preset"
  configure_preset "$preset"
  quietly "the build ($preset)" "$root/build/$preset/build.log" \
    cmake --build "build/$preset" -j "$jobs" ${1:+--target "$@"}
}

# Runs the tests of a built preset; further arguments go to ctest. A third of a test's time is waiting, and so there are
# twice as many at once as processors.
run_tests() {
  local preset=$1
  shift
  say "running the tests ($preset)"
  ctest --test-dir "build/$preset" --output-on-failure --no-tests=error -j $((2 * jobs)) "$@" </dev/null |
    sed '/^ *Start /d' ||
    die "tests failed; one alone runs with: ctest --test-dir build/$preset --output-on-failure -R NAME"
}
