# Sourced by the other scripts: what they share. Nothing here asks anything.

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

build_packages=(cmake g++ libbrotli-dev libcli11-dev libssl-dev ninja-build pkg-config zlib1g-dev)
test_packages=(binutils curl iso-codes libgtest-dev libsodium-dev libsqlite3-dev
               libxml2-utils nginx-light openssl php-cgi pkg-config procps python3 shared-mime-info
               xkb-data)
browser_packages=(chromium chromium-driver fonts-font-awesome python3-selenium)
check_packages=(abigail-tools clang clang-format clang-tidy git)
bench_packages=(iso-codes libbenchmark-dev libpugixml-dev libtinyxml2-dev libxml2-dev shared-mime-info xkb-data)
answer_packages=(libcpp-httplib-dev libmicrohttpd-dev python3 wrk)
count_packages=(gcc python3 strace valgrind)
peer_packages=(civetweb gcc h2o libcpp-httplib-dev libmicrohttpd-dev lighttpd lighttpd-mod-openssl nginx-light
               pkg-config python3 wrk)
docs_packages=(doxygen python3)

say() { printf '\n== %s\n' "$*"; }

# need PACKAGE...: installs the Debian packages that are missing, and only those.
need() {
  local package missing=()
  for package in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
      missing+=("$package")
  done
  [ "${#missing[@]}" -gt 0 ] || return 0
  local as_root=()
  [ "$(id -u)" = 0 ] || as_root=(sudo -n)
  local install=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300)
  say "installing ${missing[*]}"
  if ! { "${install[@]}" update && "${install[@]}" install -y --no-install-recommends "${missing[@]}"; } \
      >/dev/null; then
    echo "cannot install what is missing; as root run: apt-get install ${missing[*]}" >&2
    exit 1
  fi
}

# configure PRESET [OPTION...]
configure() {
  local preset="$1" options=("${@:2}")
  if command -v ccache >/dev/null; then
    options+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  fi
  (cd "$root" && cmake --preset "$preset" "${options[@]}" >/dev/null)
}

# build PRESET [OPTION...]: quiet unless it fails.
build() {
  (cd "$root" && cmake --build --preset "$1" "${@:2}" -- --quiet)
}
