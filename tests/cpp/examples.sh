#!/usr/bin/env bash
# The examples, whose words are PRODUCER and CONSUMER or DRIVER, in one world; in whichever order the
# two sides of the ring are started.
#
# usage: examples.sh SANDBOX WORLD ring PRODUCER CONSUMER
#        examples.sh SANDBOX WORLD driver DRIVER
set -euo pipefail
sandbox=$1 world=$2 which=$3
shift 3

status=0
refusal=$("$sandbox" -- true 2>&1) || status=$?
if ((status == 125)); then
    echo "SKIPPED: no sandbox on this machine: $refusal"
    exit 77
fi

# What the two sides print goes into files here: other runs go on at the same time.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"

# expect TEXT: what the commands on standard input print, on both outputs together.
expect() {
    local printed
    printed=$("$sandbox" --world "$world" -- bash -c "$(cat)" 2>&1) || {
        echo "status $?: $printed"
        exit 1
    }
    diff <(echo "$1") <(echo "$printed")
}

# Where the chunks lie in each world, for devices and for the processor.
case $world in
simulation) dma=0x00001000 next_dma=0x00011000 pa=0x1000 next_pa=0x11000 ;;
low) dma=0x80000000 next_dma=0x80010000 pa=0x80000000 next_pa=0x80010000 ;;
high) dma=0x20000000 next_dma=0x20010000 pa=0x200000000 next_pa=0x200010000 ;;
cma) dma=0x20000000 next_dma=0x20010000 pa=0x100000000 next_pa=0x100010000 ;;
esac

case $which in
ring)
    expect 'received 500 messages, all in order
sent 500 messages
received 70 messages, all in order
sent 70 messages' <<END
$2 >received & $1 500 >sent; wait \$!; cat received sent
$1 70 >sent & $2; wait \$!; cat sent
END
    ;;
driver)
    expect "0000:03:00.1 is online
tx_ring: 65536 bytes at DMA address $dma, physical address $pa
rx_ring: 1048576 bytes at DMA address $next_dma, physical address $next_pa
0000:03:00.1 is unregistered" <<END
$1 0000:03:00.1
END
    ;;
esac
