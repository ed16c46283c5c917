# What the scripts share; to be sourced. Sets the working folder to the top of the repository.

CDPATH='' cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

# Debian's packages, and nothing else: what building, testing and the demonstration need.
readonly kel_packages=(
  binutils ca-certificates cmake g++-12 gcc-12 git make ninja-build python3
  python3-pyelftools
  e2fsprogs libcli11-dev libfmt-dev libgrpc++-dev libspdlog-dev libssl-dev nlohmann-json3-dev
)
readonly kel_test_packages=(
  clang-16 clang-format-16 clang-tidy-16 g++-12-aarch64-linux-gnu gcc-12-aarch64-linux-gnu gcovr
  libclang-rt-16-dev libgtest-dev llvm-16 openssl qemu-user
  libfmt-dev:arm64 libgrpc++-dev:arm64 libgtest-dev:arm64 libspdlog-dev:arm64 libssl-dev:arm64
)

readonly kel_bench_packages=(
  capnproto g++-12-aarch64-linux-gnu gcc-12-aarch64-linux-gnu libbenchmark-dev libc6:arm64 libcapnp-dev
  libmsgpack-cxx-dev libnanopb-dev libprotobuf-dev libstdc++6:arm64 nanopb protobuf-compiler qemu-user
)

say() { printf '\n== %s\n' "$*"; }

# A package may be there for a foreign architecture only, which dpkg tells by the same name.
is_installed() {
  local package=$1 architecture=$2
  [[ "$package" != *:* ]] || architecture=${package#*:}
  dpkg-query -W -f='${db:Status-Status} ${Architecture}\n' "$package" 2>/dev/null |
    grep -xE "installed (all|$architecture)" >/dev/null
}

# Installs those of the named packages that are missing; asks apt nothing when none is.
install_missing() {
  local package native missing=()
  native=$(dpkg --print-architecture)
  for package in "$@"; do
    is_installed "$package" "$native" || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  say "installing ${missing[*]}"
  local as_root=()
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  [[ "${missing[*]}" != *:arm64* ]] || "${as_root[@]}" dpkg --add-architecture arm64
  "${as_root[@]}" apt-get update -q
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -q -y --no-install-recommends "${missing[@]}"
}

# Configures a preset if it has changed and builds what has changed.
build() {
  local preset=$1
  [ "build/$preset/build.ninja" -nt CMakePresets.json ] ||
    cmake --fresh --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
}
