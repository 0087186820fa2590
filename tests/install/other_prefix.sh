#!/usr/bin/env bash
# A build for another prefix than /usr makes no Debian packages: their folders would be wrong.
# shellcheck source=tests/install/common.sh
source "$(dirname "$0")/common.sh"

cat >"$scratch/elsewhere.cmake" <<END
include("$TARVO_BUILD/CPackConfig.cmake")
set(CPACK_BUILT_FOR /opt/tarvo)
END
if cpack --config "$scratch/elsewhere.cmake" -G DEB -B "$scratch/packages" >"$scratch/said" 2>&1
then
    fail "packages were made for /opt/tarvo"
fi
grep -q 'configured for the prefix /opt/tarvo' "$scratch/said" ||
    fail "the reason was not given: $(cat "$scratch/said")"
