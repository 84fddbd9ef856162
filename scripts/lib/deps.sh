# Installs the Debian packages the build, the tests and the demo need, only those missing.
brakwell_packages=(build-essential cmake pkg-config googletest libgtest-dev libgmock-dev
  umockdev libumockdev-dev libusb-1.0-0-dev libudev-dev libevdev-dev usbutils clang
  libclang-rt-dev clang-format libcli11-dev nlohmann-json3-dev sigrok-cli help2man bash-completion)

brakwell_install_deps() {
  local missing=()
  local p
  for p in "${brakwell_packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
