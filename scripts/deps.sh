# Sourced by the build scripts: installs the Debian packages a build needs
# (as root, or through sudo when it is available).
#   sw_install_packages package...
sw_install_packages() {
    if ! command -v dpkg >/dev/null 2>&1; then
        echo "no dpkg here; assuming $* (or equivalents) are installed" >&2
        return 0
    fi
    local missing=() package
    for package in "$@"; do
        # dpkg -s also succeeds for removed packages that left config files behind.
        if ! dpkg -s "$package" 2>/dev/null | grep -q '^Status: install ok installed$'; then
            missing+=("$package")
        fi
    done
    ((${#missing[@]} == 0)) && return 0
    local as_root=()
    if [[ "$(id -u)" -ne 0 ]]; then
        if ! command -v sudo >/dev/null 2>&1; then
            echo "missing packages: ${missing[*]} (run as root to install them)" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    echo "installing: ${missing[*]}"
    "${as_root[@]}" apt-get update
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y --no-install-recommends "${missing[@]}"
}

# What configuring the default preset needs: the compiler, the build tools and
# GoogleTest, which the configure step looks for; python3 checks the guide
# against the examples.
SW_BUILD_PACKAGES=(cmake ninja-build g++ googletest libgtest-dev libgmock-dev pkg-config python3)
