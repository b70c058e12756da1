# Sourced by the scripts here: installs the named Debian packages that are not
# installed yet. A failing 'apt-get update' (a mirror in the middle of a sync)
# does not stop it: the packages can often still be installed from the lists
# already on the machine.
install_missing() {
    local missing=()
    for p in "$@"; do
        dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "== installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -qq || echo "warning: apt-get update failed; trying with the current package lists" >&2
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}
