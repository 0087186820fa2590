// The generator's part that makes the kernel driver refuse.

#include "generator.hpp"

namespace model {

namespace {

std::string device_name(const pci_triple& one) {
    return text_of("%04x:%02x:%02x.%x", one.domain, one.bus, one.devfn >> 3U, one.devfn & 7U);
}

/// At one call or two, not far ahead.
std::string soon(chance& dice) {
    const uint64_t first = 1 + dice.below(6);
    return ",nth=" + std::to_string(first) +
           (dice.one_in(3) ? "-" + std::to_string(first + 1) : "");
}

std::string at_some_time(chance& dice) {
    switch (dice.below(4)) {
    case 0:
        return "";
    case 1:
        return ",nth=" + std::to_string(1 + dice.below(4)) + "+";
    default:
        return soon(dice);
    }
}

std::string some_device(chance& dice) {
    return dice.one_in(2) ? ",device=" + device_name(dice.any_of(all_devices())) : "";
}

std::string some_range(chance& dice, const world& where) {
    if (!dice.one_in(4)) {
        return "";
    }
    const uint64_t first = where.start + pages(dice.below(8));
    return ",range=" + hexadecimal(first) + "-" + hexadecimal(first + pages(1 + dice.below(8)));
}

/// A refused "map" with an errno that is an error ends every client that allocates, so those rules
/// pass quickly.
std::string request_rule(chance& dice, const world& where) {
    const std::string picked = some_device(dice) + some_range(dice, where);
    switch (dice.below(6)) {
    case 0:
    case 1:
        return "op=map" + picked + soon(dice) + ",errno=" + dice.any_of({"EIO", "EINVAL", "EPERM"});
    case 2:
        return "op=unmap" + picked + at_some_time(dice) +
               ",errno=" + dice.any_of({"EIO", "EINVAL", "ENODEV", "EUNATCH", "ENOSYS"});
    case 3:
        return "op=open-write,file=sysfs" + soon(dice) +
               ",errno=" + dice.any_of({"ENOENT", "ENODEV", "EACCES"});
    case 4:
        return "file=sysfs,at=close" + picked + at_some_time(dice) +
               ",errno=" + dice.any_of({"EIO", "ENODEV"});
    default:
        return "file=sysfs" + picked + at_some_time(dice) +
               ",errno=" + dice.any_of({"ENODEV", "EUNATCH", "ENOSYS"});
    }
}

/// What starting processes read.
std::string start_rule(chance& dice) {
    switch (dice.below(3)) {
    case 0:
        return "op=open-read,file=proc" + at_some_time(dice) +
               ",errno=" + dice.any_of({"ENOENT", "EIO"});
    case 1:
        return "file=proc,at=close" + at_some_time(dice) + ",errno=EIO";
    default:
        return std::string("listing=") + dice.any_of({"empty", "no-first-line"}) +
               at_some_time(dice);
    }
}

std::string address_rule(chance& dice, const machine_state& machine) {
    const world& where = machine.where;
    uint64_t pa =
        dice.any_of({uint64_t{0}, where.start, where.start + pages(5), where.start - pages(1),
                     where.end() - pages(1), where.end(), where.start + 100});
    if (!machine.area.chunks.empty() && dice.one_in(2)) {
        pa = dice.any_of(machine.area.chunks).end() + pages(dice.below(3));
    }
    return "address=" + hexadecimal(pa) + soon(dice);
}

std::string listing_rule(chance& dice, const world& where) {
    const std::string picked = dice.one_in(2) ? ",name=" + dice.any_of(all_names(where)) : "";
    return std::string("listing=") +
           dice.any_of({"missing-field", "garbage", "wrong-size", "address-zero", "empty",
                        "no-first-line", "first-line-only", "extra-name", "extra-size"}) +
           picked + soon(dice);
}

std::string cma_rule(chance& dice, const machine_state& machine) {
    switch (dice.below(8)) {
    case 0:
        return "op=allocate" + soon(dice) +
               ",errno=" + dice.any_of({"EIO", "EEXIST", "ENOMEM", "EINVAL"});
    case 1:
        return "op=release" + at_some_time(dice) + ",errno=EIO";
    case 2:
        return "op=allocate,short=3" + soon(dice);
    case 3:
        return "op=open-write,file=proc" + soon(dice) + ",errno=EACCES";
    case 4:
    case 5:
        return address_rule(dice, machine);
    default:
        return listing_rule(dice, machine.where);
    }
}

} // namespace

std::vector<std::string> choose_rules(chance& dice, const machine_state& machine) {
    std::vector<std::string> rules;
    for (uint64_t left = dice.below(4); left != 0; left--) {
        if (machine.where.cma && dice.one_in(2)) {
            rules.push_back(cma_rule(dice, machine));
        } else if (!machine.where.simulated && dice.one_in(4)) {
            rules.push_back(start_rule(dice));
        } else {
            rules.push_back(request_rule(dice, machine.where));
        }
    }
    return rules;
}

} // namespace model
