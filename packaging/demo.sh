#!/usr/bin/env bash
# The main job, shown on a sample folder: protect, open, list, close, change the password, remove,
# compare. Called by ./run with the build directory; leaves nothing behind, whatever happens.
set -euo pipefail

build=$1
qv=$build/bin/qv
password="correct horse battery staple"
newPassword="a better password"

stop() {
    printf '\n%s\n' "$*" >&2
    exit 1
}

[[ -e /dev/fuse ]] || stop "/dev/fuse is missing: load the kernel module (modprobe fuse); a \
container needs --device /dev/fuse and the capability SYS_ADMIN."
[[ -r /dev/fuse && -w /dev/fuse ]] ||
    stop "This user may not use /dev/fuse: it should have mode 0666 (chmod 0666 /dev/fuse)."

place=$(mktemp -d "${TMPDIR:-/tmp}/quillvane-demo.XXXXXX")
cleanUp() {
    trap '' INT TERM HUP # let nothing interrupt this
    local point
    # mountinfo writes a blank as \040.
    while read -r _ _ _ _ point _; do
        printf -v point '%b' "$point"
        [[ $point != "$place"/* ]] ||
            "$build/libexec/quillvane/hdiutil" detach -force "$point" >/dev/null 2>&1 ||
            fusermount3 -u -z "$point" || true
    done </proc/self/mountinfo
    rm -rf --one-file-system "$place"
}
trap cleanUp EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

# Volumes appear below the sample directory, and no window opens.
mkdir -m 700 "$place/home" "$place/runtime" "$place/sample"
export HOME=$place/home XDG_RUNTIME_DIR=$place/runtime
unset DISPLAY WAYLAND_DISPLAY
cd "$place/sample"

# step TITLE: begins a step; show COMMAND…: prints and runs a command.
number=0
step() { printf '\n%d. %s\n' "$((++number))" "$*"; }
show() {
    printf '   $ %s\n' "${*/#$qv/qv}"
    "$@" | sed 's/^/     /'
}
# withSecrets SECRET… -- COMMAND…: the same, with one line of standard input for each secret.
withSecrets() {
    local secrets=()
    while [[ $1 != -- ]]; do
        secrets+=("$1")
        shift
    done
    shift
    show "$@" < <(printf '%s\n' "${secrets[@]}")
}

# Everything about a tree that `diff` does not look at. Times to the nanosecond.
metadata() { (cd "$1" && find . -printf '%p %y %m %U:%G %n %T@ %l\n' | sort); }

mkdir -p "Documents/letters"
printf 'Dear Ada,\nthis is private.\n' >Documents/letters/ada.txt
head -c 5000000 /dev/urandom >Documents/photo.raw
truncate -s 20M Documents/sparse.img
printf '#!/bin/sh\necho run\n' >Documents/run.sh
chmod 750 Documents/run.sh
ln -s letters/ada.txt Documents/latest
ln Documents/photo.raw Documents/letters/hard-link.raw
touch -d '2001-02-03 04:05:06.789012345' Documents/letters
cp -a Documents ../reference

step "A folder to protect"
show ls -l Documents
step "Protect it: the folder becomes one encrypted item; the recovery key is shown once"
withSecrets "$password" -- "$qv" lock --stdin Documents
step "Without the password there is nothing to see"
show ls -lA
step "Open it: the item is mounted as a volume"
withSecrets "$password" -- "$qv" open --stdin Documents.quillvane
show ls -lR "$HOME/Volumes/Documents"
show cat "$HOME/Volumes/Documents/latest"
step "Close it"
show "$qv" close Documents.quillvane
step "Change the password: only the small key file is written anew"
withSecrets "$password" "$newPassword" -- "$qv" change --stdin Documents.quillvane
step "The old password opens it no more"
if withSecrets "$password" -- "$qv" open --stdin Documents.quillvane 2>&1; then
    stop "The old password still opens the item."
fi
step "Remove the protection: the item becomes the folder again"
withSecrets "$newPassword" -- "$qv" remove --stdin Documents.quillvane
step "Compare with a copy made before: contents, types, modes, owners, links and times"
show diff -r --no-dereference ../reference Documents
metadata ../reference >../before.txt
metadata Documents >../after.txt
show diff ../before.txt ../after.txt
[[ $(ls -A) == Documents ]] || stop "Something was left behind: $(ls -A)"

printf '\nAll steps passed: the folder came back from its encrypted item exactly as it was.\n'
