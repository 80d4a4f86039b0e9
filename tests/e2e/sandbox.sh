#!/bin/sh
# Runs a command with its own /etc, /tmp and /run, so the program's fixed paths
# (/etc/upnpav.conf, /tmp/mediawalking.tmp, /var/run/xmldb_sock, ...) land in a
# test's work folder and never touch the host.
#
# Meant to be started as the first process of a fresh mount namespace:
#   unshare --mount [--map-root-user] sh sandbox.sh -e UPPER -o OVLWORK \
#       -t TMPDIR -r RUNDIR [-w NAME]... -- COMMAND [ARG]...
#
#   -e UPPER    overlay upper folder for /etc: the files in it replace the host's
#   -o OVLWORK  overlayfs work folder, empty, on the same file system as UPPER
#   -t TMPDIR   bound on /tmp
#   -r RUNDIR   bound on /run (and on /var/run when that is not a link to /run)
#   -w NAME     hide /etc/NAME with a whiteout, as if the file did not exist
set -eu

upper= ovlwork= tmpdir= rundir= whiteouts=
while getopts e:o:t:r:w: opt; do
    case $opt in
        e) upper=$OPTARG ;;
        o) ovlwork=$OPTARG ;;
        t) tmpdir=$OPTARG ;;
        r) rundir=$OPTARG ;;
        w) whiteouts="$whiteouts $OPTARG" ;;
        *) echo "sandbox.sh: bad option" >&2; exit 125 ;;
    esac
done
shift $((OPTIND - 1))
if [ -z "$upper" ] || [ -z "$ovlwork" ] || [ -z "$tmpdir" ] || [ -z "$rundir" ] || [ $# -eq 0 ]; then
    echo "sandbox.sh: usage: -e UPPER -o OVLWORK -t TMPDIR -r RUNDIR [-w NAME]... -- COMMAND" >&2
    exit 125
fi

fail() { echo "sandbox.sh: $*" >&2; exit 125; }

# Keep every mount below private so nothing leaks back to the host namespace.
mount --make-rprivate / || fail "cannot make / private"

for name in $whiteouts; do
    case $name in */*|.|..) fail "bad whiteout name: $name" ;; esac
    rm -f "$upper/$name"
    # A 0/0 character device in the upper folder is overlayfs's whiteout.
    mknod "$upper/$name" c 0 0 || fail "cannot create whiteout for /etc/$name"
done

mount -t overlay overlay -o "lowerdir=/etc,upperdir=$upper,workdir=$ovlwork" /etc \
    || fail "cannot mount the /etc overlay"
mount --bind "$tmpdir" /tmp || fail "cannot bind $tmpdir on /tmp"
mount --bind "$rundir" /run || fail "cannot bind $rundir on /run"
if [ ! -L /var/run ] && [ -d /var/run ]; then
    mount --bind "$rundir" /var/run || fail "cannot bind $rundir on /var/run"
fi

exec "$@"
