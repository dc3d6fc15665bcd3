# Sourced by the scripts that build and run things on their own: helpers
# they would otherwise each write again.

# ensure_packages PKG...: installs the Debian packages that are missing (as
# root, with apt-get); without root, names them and fails.
ensure_packages() {
    local missing=() p
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep 'install ok installed' >/dev/null ||
            missing+=("$p")
    done
    [[ ${#missing[@]} -eq 0 ]] && return 0
    if [[ $(id -u) -ne 0 ]]; then
        echo "missing packages: ${missing[*]} (install them, or run as root)" >&2
        return 1
    fi
    DEBIAN_FRONTEND=noninteractive apt-get update </dev/null
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}" </dev/null
}
