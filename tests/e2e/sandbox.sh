#!/bin/sh
# Runs a command with its own /etc, /tmp and /run, so the program's fixed paths land in a test's
# folders and never touch the host. The first process of a fresh mount namespace:
#   unshare --mount sh sandbox.sh -e UPPER -o OVLWORK -t TMPDIR -r RUNDIR [-w NAME]... -- COMMAND...
# UPPER and OVLWORK (empty, same file system) make the /etc overlay; -w NAME hides /etc/NAME.
set -eu
upper= ovlwork= tmpdir= rundir= whiteouts=
while getopts e:o:t:r:w: opt; do
    case $opt in
        e) upper=$OPTARG ;; o) ovlwork=$OPTARG ;; t) tmpdir=$OPTARG ;; r) rundir=$OPTARG ;;
        w) whiteouts="$whiteouts $OPTARG" ;;
        *) echo "sandbox.sh: bad option" >&2; exit 125 ;;
    esac
done
shift $((OPTIND - 1))
fail() { echo "sandbox.sh: $*" >&2; exit 125; }
[ -n "$upper" ] && [ -n "$ovlwork" ] && [ -n "$tmpdir" ] && [ -n "$rundir" ] && [ $# -gt 0 ] || fail "usage"

mount --make-rprivate / || fail "cannot make / private"  # nothing leaks back to the host
for name in $whiteouts; do
    case $name in */*|.|..) fail "bad whiteout name: $name" ;; esac
    rm -f "$upper/$name"
    mknod "$upper/$name" c 0 0 || fail "cannot hide /etc/$name"  # overlayfs's whiteout
done
mount -t overlay overlay -o "lowerdir=/etc,upperdir=$upper,workdir=$ovlwork" /etc || fail "cannot mount /etc"
mount --bind "$tmpdir" /tmp || fail "cannot bind $tmpdir on /tmp"
mount --bind "$rundir" /run || fail "cannot bind $rundir on /run"
if [ ! -L /var/run ] && [ -d /var/run ]; then
    mount --bind "$rundir" /var/run || fail "cannot bind $rundir on /var/run"
fi
exec "$@"
