# Sourced by the scripts. Installs the packages that are missing on Debian 12, and names them.

# need PACKAGE FILE... : the package counts as installed if one of the files exists. Wildcards are
# allowed.
missing=()
need() {
  local package=$1 file
  shift
  for file in "$@"; do
    compgen -G "$file" >/dev/null && return
  done
  missing+=("$package")
}

need_build_tools() {
  need cmake /usr/bin/cmake /usr/local/bin/cmake
  need ninja-build /usr/bin/ninja /usr/local/bin/ninja
  need g++ /usr/bin/g++ /usr/local/bin/g++
  need libsystemd-dev /usr/include/systemd/sd-bus.h
}

need_test_tools() {
  need googletest /usr/src/googletest/googletest/CMakeLists.txt
  need dbus-daemon /usr/bin/dbus-daemon
  need strace /usr/bin/strace
  need python3 /usr/bin/python3
  need gdb /usr/bin/gdb
  need cmark-gfm /usr/bin/cmark-gfm # scripts/check-docs renders the documents
  need pkgconf /usr/bin/pkg-config
  need make /usr/bin/make
  need scdoc /usr/bin/scdoc # scripts/manuals; man and mandoc check what it makes
  need doxygen /usr/bin/doxygen
  need man-db /usr/bin/man
  need mandoc /usr/bin/mandoc
  need zsh /usr/bin/zsh
  need fish /usr/bin/fish
  need systemd /usr/bin/systemd-analyze
}

need_package_tools() {
  need debhelper /usr/bin/dh
  need lintian /usr/bin/lintian
  need scdoc /usr/bin/scdoc
  need python3 /usr/bin/python3
  ((EUID == 0)) || need fakeroot /usr/bin/fakeroot
}

need_lint_tools() {
  need clang-format '/usr/bin/clang-format*'
  need clang-tidy '/usr/bin/clang-tidy*'
  need codespell /usr/bin/codespell
  need shellcheck /usr/bin/shellcheck
}

# need_cross_tools PRESET : what a build for another kind of CPU takes.
need_cross_tools() {
  local compiler=$1
  [[ $1 != i386 ]] || compiler=i686
  need "g++-$compiler-linux-gnu" "/usr/bin/$compiler-linux-gnu-g++"
  [[ $1 == i386 ]] || need qemu-user-static /usr/bin/qemu-ppc-static
}

need_clang() { need clang /usr/bin/clang++; }

need_fuzz_tools() {
  need_clang
  need libclang-rt-dev '/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-*.a'
}

install_missing() {
  ((${#missing[@]} == 0)) && return
  local as_root=()
  if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
      echo "Missing packages: ${missing[*]}. Install them as root, or install sudo." >&2
      return 1
    fi
    as_root=(sudo)
  fi
  echo "Installing with apt: ${missing[*]}"
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
    --no-install-recommends "${missing[@]}"
  missing=()
}
