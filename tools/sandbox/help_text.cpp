#include "help_text.hpp"

namespace sandbox {

std::string run_help() {
    return R"(Run a command in a machine that has a libtarvo kernel driver, without having one.

Usage:
  tarvo-sandbox [run] [OPTIONS] -- COMMAND [ARG...]       start a sandbox
  tarvo-sandbox join --control PATH -- COMMAND [ARG...]   a further command in it
  tarvo-sandbox rule --control PATH [RULE...]             change its rules

The command sees its own /proc/tarvo, /dev/mem, /sys/kernel/tarvo_iommu_map_region, /var/tmp,
/var/shmem and /var/lock/subsys. The rest of the machine is as it is, and stays as it is.

What the command finds
  --world W             simulation  SIMULATION_VMID is set, no /proc/tarvo (the default)
                        low         a region at 80000000-8fffffff
                        high        a region at 200000000-23fffffff, above 4 GiB
                        crossing    a region at f0000000-10fffffff, across 4 GiB
                        cma         the allocator's region at 100000000-13fffffff
  --region START-END[:NAME]
                        another region; hexadecimal, END inclusive, NAME "tarvo" if left out
  --region-line TEXT    the first line of /proc/tarvo, right or wrong; \t and \n are understood
  --without ITEM        leave out proc, sysfs, mem, shmem or lockdir; may be repeated
  --state DIR           keep the state in DIR/tmp, DIR/shmem, DIR/subsys and DIR/mem

What the driver does
  --rule RULE           a scripted refusal or oddity; may be repeated
  --log FILE            append every open, write and close of the driver's files as a JSON line
  --control PATH        a Unix socket for join and rule

  --help                this text
  --version             the version

Rules are KEY=VALUE, joined by commas. The first that matches and is due answers.
  which call            op=map|unmap|allocate|release|open-read|open-write|any  file=proc|sysfs
                        at=open|write|close  device=0000:03:00.0  range=0xSTART-0xEND  name=CHUNK
  which of them         nth=3  nth=3+  nth=3-5
  the answer            errno=EIO  address=0x0  short=4  listing=missing-field|garbage|wrong-size|
                        address-zero|empty|no-first-line|first-line-only|extra-name|extra-size

Examples
  tarvo-sandbox -- ./client                        simulation, nothing left behind
  tarvo-sandbox --world low --log /tmp/log -- ./client
  tarvo-sandbox --world low --rule op=map,nth=2,errno=ENODEV -- ./client
  tarvo-sandbox --world cma --rule listing=wrong-size,name=rx_ring -- ./client

The tool ends as the command ends, by exit status or by signal. 125: the tool itself is in trouble;
126: the command cannot be executed; 127: there is no such command. See tarvo-sandbox(1).
)";
}

std::string join_help() {
    return R"(Run a further command in a sandbox that was started with --control.

Usage: tarvo-sandbox join --control PATH -- COMMAND [ARG...]

The sandbox lives until the last of its commands has ended.
)";
}

std::string rule_help() {
    return R"(Change the rules of a running sandbox that was started with --control.

Usage: tarvo-sandbox rule --control PATH [--clear] [--list] [RULE...]

  --clear    drop the rules in force first; without it the new ones come behind them
  --list     print the rules then in force, one a line: how often it has matched, a tab, the rule

The change is in force when the tool returns. See tarvo-sandbox --help for how to write a rule.
)";
}

} // namespace sandbox
