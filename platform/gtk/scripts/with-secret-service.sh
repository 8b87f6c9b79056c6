#!/bin/sh
# Runs a command with a Secret Service of its own, for hosts without a desktop session (a
# demo, CI): a private D-Bus session bus with gnome-keyring's secrets component on it, its
# login keyring kept in $KEYRING_DIR and made or unlocked with $KEYRING_PASSWORD. Both daemons
# end with the command, whose exit status this script returns.
#   KEYRING_DIR=build/demo-keyring KEYRING_PASSWORD=demo with-secret-service.sh <command> [args...]
set -u
: "${KEYRING_DIR:?set KEYRING_DIR}" "${KEYRING_PASSWORD:?set KEYRING_PASSWORD}"
mkdir -p "$KEYRING_DIR" && chmod 700 "$KEYRING_DIR" || exit 1
export KEYRING_DIR KEYRING_PASSWORD
# A bus that starts no services of its own (an accessibility bus, say): the keyring is the one
# started here, and nothing else outlives the command.
cat >"$KEYRING_DIR/bus.conf" <<'EOF'
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
EOF
# The bus daemon logs what it refuses: only the command's own errors reach stderr.
exec 3>&2
exec 2>/dev/null dbus-run-session --config-file="$KEYRING_DIR/bus.conf" -- sh -c '
  printf %s "$KEYRING_PASSWORD" |
    XDG_DATA_HOME="$KEYRING_DIR" gnome-keyring-daemon --foreground --unlock --components=secrets >/dev/null 2>&1 &
  keyring=$!
  if ! gdbus wait --session --timeout 10 org.freedesktop.secrets; then
    echo "with-secret-service: gnome-keyring did not start" >&3
    kill $keyring 2>/dev/null
    exit 1
  fi
  unset KEYRING_PASSWORD
  "$@" 2>&3 3>&-
  status=$?
  kill $keyring
  wait $keyring
  exit $status' with-secret-service "$@"
