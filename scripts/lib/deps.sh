# Installs the Debian packages a script needs, only those missing.
#   brakwell_install_deps demo   what the demo builds and runs with
#   brakwell_install_deps        that, plus what the tests, the fuzzers and the packaging use
brakwell_demo_packages=(build-essential cmake pkg-config googletest libgtest-dev libgmock-dev
  umockdev libumockdev-dev libusb-1.0-0-dev libudev-dev libevdev-dev libcli11-dev
  nlohmann-json3-dev)
brakwell_test_packages=("${brakwell_demo_packages[@]}" usbutils clang libclang-rt-dev
  clang-format python3 python3-pytest python3-serial sigrok-cli lintian help2man
  bash-completion)

brakwell_install_deps() {
  local list=brakwell_test_packages
  [ "${1:-}" = demo ] && list=brakwell_demo_packages
  local -n wanted=$list
  local missing=()
  local p
  for p in "${wanted[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
