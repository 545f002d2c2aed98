# Sourced by the scripts: installs the packages of the list and of the arguments that are missing.
install_packages() {
    local missing=() package
    for package in $(cat cmake/packages.txt) "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    local as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    echo "Installing ${missing[*]}"
    "${as_root[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

build_preset() { # preset, targets (all of them when none is named)
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1" ${2:+--target "${@:2}"} -- --quiet
}
