# Shared by the scripts in scripts/: installs the Debian packages a script
# needs when they are missing, with apt-get, through sudo when not run as root.
#
#   source "$root/scripts/lib/packages.sh"
#   need_command cmake cmake     # command, package that provides it
#   need_package libpng-dev      # a package (name:arch for another architecture)
#   install_missing scripts/test
#   try_install scripts/test libexiv2-dev:arm64   # 0 when installed now or before
#
# A package for another architecture (libpng-dev:arm64) first enables that
# architecture in dpkg (multiarch), which needs a fresh apt-get update.

missing_packages=()

# The libraries of the `morven` tool (and its tests): the codecs, Exiv2 for
# metadata, Little CMS 2 for colour management, CLI11 for its command line.
# CLI11 is headers only, for every architecture at once.
tool_packages=(libpng-dev libjpeg62-turbo-dev libtiff-dev libwebp-dev libexiv2-dev liblcms2-dev)
tool_header_packages=(libcli11-dev)

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

# Installs the given packages with apt-get (through sudo when not root).
apt_install() {
  local script=$1
  shift
  ((${#@})) || return 0
  if ! command -v apt-get >/dev/null 2>&1; then
    echo "$script: missing $* and apt-get is not available" >&2
    return 1
  fi
  local sudo=()
  if [[ $(id -u) -ne 0 ]]; then
    command -v sudo >/dev/null 2>&1 || {
      echo "$script: missing $*; run as root or install sudo" >&2
      return 1
    }
    sudo=(sudo)
  fi
  local package arch
  for package in "$@"; do
    [[ $package == *:* ]] || continue
    arch=${package#*:}
    if [[ $arch != "$(dpkg --print-architecture)" ]] &&
       ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
      echo "$script: enabling the $arch architecture for ${package%%:*}" >&2
      "${sudo[@]}" dpkg --add-architecture "$arch"
    fi
  done
  echo "$script: installing $*" >&2
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q >&2
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "$@" >&2
}

install_missing() {
  apt_install "$1" "${missing_packages[@]}"
}

# Installs the packages when they are missing; returns non-zero (after
# saying nothing more than apt-get did) when that is not possible, so that
# the caller can build without them.
try_install() {
  local script=$1 package wanted=()
  shift
  for package in "$@"; do
    package_installed "$package" || wanted+=("$package")
  done
  apt_install "$script" "${wanted[@]}"
}
