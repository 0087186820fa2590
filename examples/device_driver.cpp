/* SPDX-License-Identifier: MIT */

// What the driver of a PCI device does: registers it, so that it sees every chunk, gives it two
// rings by their DMA addresses, and takes all of it away: usage: device_driver [0000:03:00.0]

#include "tarvo.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <utility>
#include <vector>

using namespace tarvo::literals;

namespace {

int complain(const tarvo::error& why) {
    std::fprintf(stderr, "device_driver: %s\n", why.message());
    return 1;
}

/// Memory that the device and this process share.
struct ring {
    tarvo::chunk chunk;
    tarvo::mapping memory;
};

tarvo::result<ring> make_ring(const char* name, tarvo::bytes size) {
    const auto chunk = tarvo::allocate(name, size, "device_driver");
    if (!chunk) {
        return chunk.error();
    }
    auto memory = tarvo::map(*chunk);
    if (!memory) {
        (void)tarvo::free_chunk(*chunk); // the failed mapping is what counts
        return memory.error();
    }
    return ring{*chunk, *std::move(memory)};
}

/// Fills a ring, as a driver does before it tells the device the address that is printed here.
tarvo::result<void> hand_over(const ring& made) {
    std::ranges::fill(made.memory.span(), std::byte{0xa5});
    const auto pa = tarvo::dma_to_pa(made.memory.dma());
    if (!pa) {
        return pa.error();
    }
    std::printf("%s: %zu bytes at DMA address 0x%08x, physical address 0x%llx\n",
                made.chunk.c_name(), made.memory.size(), made.memory.dma().value(),
                static_cast<unsigned long long>(pa->value()));
    return {};
}

/// Those that were made are in `rings`, whatever the result.
tarvo::result<void> make_rings(std::vector<ring>& rings) {
    constexpr std::pair<const char*, tarvo::bytes> wanted[] = {{"tx_ring", 64_KiB},
                                                               {"rx_ring", 1_MiB}};
    for (const auto& [name, size] : wanted) {
        auto made = make_ring(name, size);
        if (!made) {
            return made.error();
        }
        rings.push_back(*std::move(made));
        if (auto done = hand_over(rings.back()); !done) {
            return done;
        }
    }
    return {};
}

/// Unmaps and frees them.
tarvo::result<void> drop_rings(std::vector<ring>& rings) {
    tarvo::result<void> done;
    for (const ring& made : rings) {
        if (const auto freed = tarvo::free_chunk(made.chunk); !freed) {
            done = freed;
        }
    }
    rings.clear();
    return done;
}

/// Copied while the lock is held and printed after it was released.
void print_devices() {
    std::vector<tarvo::listed_device> devices;
    if (const auto now = tarvo::listing::open()) {
        for (const tarvo::listed_device& device : now->devices()) {
            devices.push_back(device);
        }
    }
    for (const tarvo::listed_device& device : devices) {
        std::printf("%s is %s\n", device.text().c_str(), device.online() ? "online" : "offline");
    }
}

} // namespace

int main(int argc, char** argv) {
    const auto device = tarvo::device::parse(argc > 1 ? argv[1] : "0000:03:00.0");
    if (!device) {
        return complain(device.error());
    }
    if (const auto registered = tarvo::register_device(*device); !registered) {
        // A device that refuses is registered all the same.
        if (registered.error().code() == tarvo::error_code::refused) {
            (void)tarvo::unregister_device(*device);
        }
        return complain(registered.error());
    }
    print_devices();
    std::vector<ring> rings;
    const auto made = make_rings(rings);
    // Whatever became of them: chunks and registrations outlive the process.
    const auto dropped = drop_rings(rings);
    const auto unregistered = tarvo::unregister_device(*device);
    for (const auto& step : {made, dropped, unregistered}) {
        if (!step) {
            return complain(step.error());
        }
    }
    std::printf("%s is unregistered\n", device->text().c_str());
    return 0;
}
