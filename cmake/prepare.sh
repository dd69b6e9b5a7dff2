# Shell functions of ./run and ./test; sourced, with $root set to the repository.
# Everything they say goes to standard error, and nothing reads standard input: both belong to the
# program that is run afterwards.

fail() {
    printf '%s\n' "$*" >&2
    exit 1
}

# installPackages LIST...: installs what is missing of the Debian packages named in the files.
installPackages() {
    local packages=() missing=() installed package log
    # Another system than Debian has these programs and libraries under names of its own; what is
    # missing there is named by the configuration of the build.
    command -v dpkg-query >/dev/null || return 0
    mapfile -t packages < <(grep -hv '^#' "$@")
    installed=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "${packages[@]}" 2>/dev/null || true)
    for package in "${packages[@]}"; do
        [[ $'\n'$installed$'\n' == *$'\n'"installed $package"$'\n'* ]] || missing+=("$package")
    done
    ((${#missing[@]})) || return 0

    local asRoot=()
    if ((EUID != 0)); then
        command -v sudo >/dev/null ||
            fail "These Debian packages are missing; install them as root: ${missing[*]}"
        asRoot=(sudo)
    fi
    printf 'Installing %d Debian packages: %s\n' "${#missing[@]}" "${missing[*]}" >&2
    log=$(mktemp)
    if ! { "${asRoot[@]}" apt-get update -q &&
        "${asRoot[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -q -y --no-install-recommends "${missing[@]}"; } \
        </dev/null >"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        fail "The packages could not be installed."
    fi
    rm -f "$log"
}

# build PRESET TESTING TARGET: configures build/PRESET where that has not been done, with the tests
# when TESTING is ON, and builds TARGET; prints the build's output only when it fails.
build() {
    local preset=$1 testing=$2 target=$3 directory=$root/build/$1 log
    mkdir -p "$directory"
    log=$directory/build.log
    # Two runs at once must not build in one place. macOS has no such command, and an old shell.
    exec 9>"$directory/build.lock"
    ! command -v flock >/dev/null || flock 9
    if [[ ! -f $directory/build.ninja || $testing == ON ]]; then
        printf 'Configuring %s…\n' "$preset" >&2
        (cd "$root" && cmake --preset "$preset" -DBUILD_TESTING="$testing") \
            </dev/null >"$log" 2>&1 || failWith "$log" "The build could not be configured."
    fi
    if ! ninja -C "$directory" -n "$target" </dev/null 2>/dev/null | grep -q 'no work to do'; then
        printf 'Building %s…\n' "$preset" >&2
        ninja --quiet -C "$directory" "$target" </dev/null >"$log" 2>&1 ||
            failWith "$log" "The build failed."
    fi
    exec 9>&-
}

failWith() {
    cat "$1" >&2
    fail "$2"
}
