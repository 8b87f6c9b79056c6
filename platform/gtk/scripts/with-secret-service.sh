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
exec dbus-run-session -- sh -c '
  printf %s "$KEYRING_PASSWORD" |
    XDG_DATA_HOME="$KEYRING_DIR" gnome-keyring-daemon --foreground --unlock --components=secrets >/dev/null 2>&1 &
  keyring=$!
  if ! gdbus wait --session --timeout 10 org.freedesktop.secrets; then
    echo "with-secret-service: gnome-keyring did not start" >&2
    kill $keyring 2>/dev/null
    exit 1
  fi
  unset KEYRING_PASSWORD
  "$@"
  status=$?
  kill $keyring
  wait $keyring
  exit $status' with-secret-service "$@"
