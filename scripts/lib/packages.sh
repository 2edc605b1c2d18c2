# Shared by the scripts in scripts/: installs the Debian packages a script
# needs when they are missing, with apt-get, through sudo when not run as root.
#
#   source "$root/scripts/lib/packages.sh"
#   need_command cmake cmake     # command, package that provides it
#   need_package libpng-dev      # a package (name:arch for another architecture)
#   install_missing scripts/test
#
# A package for another architecture (libpng-dev:arm64) first enables that
# architecture in dpkg (multiarch), which needs a fresh apt-get update.

missing_packages=()

package_installed() {
  dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'
}

need_command() {
  command -v "$1" >/dev/null 2>&1 || missing_packages+=("$2")
}

need_package() {
  # Without dpkg there is no way to tell; the build then reports what lacks.
  command -v dpkg-query >/dev/null 2>&1 || return 0
  package_installed "$1" || missing_packages+=("$1")
}

install_missing() {
  local script=$1
  ((${#missing_packages[@]})) || return 0
  if ! command -v apt-get >/dev/null 2>&1; then
    echo "$script: missing ${missing_packages[*]} and apt-get is not available" >&2
    return 1
  fi
  local sudo=()
  if [[ $(id -u) -ne 0 ]]; then
    command -v sudo >/dev/null 2>&1 || {
      echo "$script: missing ${missing_packages[*]}; run as root or install sudo" >&2
      return 1
    }
    sudo=(sudo)
  fi
  local package arch
  for package in "${missing_packages[@]}"; do
    [[ $package == *:* ]] || continue
    arch=${package#*:}
    if [[ $arch != "$(dpkg --print-architecture)" ]] &&
       ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
      echo "$script: enabling the $arch architecture for ${package%%:*}" >&2
      "${sudo[@]}" dpkg --add-architecture "$arch"
    fi
  done
  echo "$script: installing ${missing_packages[*]}" >&2
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q >&2
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "${missing_packages[@]}" >&2
}
