#!/bin/sh
# kills.sh KILLS TARVOCTL COUNT: what those who were killed have left can be repaired.
set -eu
"$1" "$3"
"$2" repair -y >/dev/null
"$2" check
