# Sourced by the scripts: makes sure the Debian packages a step needs are
# present. As root it installs what is missing with apt-get; otherwise it
# names the packages and fails.
tarn_need_packages() {
  local missing=()
  local pkg
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -eq 0 ]; then
    echo "== installing: ${missing[*]}"
    if [ -z "${TARN_APT_UPDATED:-}" ]; then
      apt-get update -qq || return 1
      export TARN_APT_UPDATED=1
    fi
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null || return 1
    return 0
  fi
  echo "missing Debian packages: ${missing[*]}" >&2
  echo "install them with: sudo apt-get install ${missing[*]}" >&2
  return 1
}

# Installs optional packages (test oracles) when possible; never fails.
tarn_want_packages() {
  tarn_need_packages "$@" 2>/dev/null || echo "== optional packages not installed (tests that use them will skip): $*"
}

tarn_build_tool() {
  if command -v ninja >/dev/null 2>&1; then echo "Ninja"; else echo "Unix Makefiles"; fi
}
