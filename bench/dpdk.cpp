#include "contender.hpp"

#include <cstring>
#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_memzone.h>
#include <vector>

namespace {

/// Named memory zones, without huge pages and devices. Up to some 2500 of them.
class dpdk_contender : public contender {
  public:
    dpdk_contender() {
        std::vector<std::string> words{
            "bench",       "--no-huge", "--no-pci",       "-m",         "64", "-l", "0",
            "--log-level", "critical",  "--no-telemetry", "--no-shconf"};
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        if (rte_eal_init(static_cast<int>(arguments.size()), arguments.data()) < 0) {
            give_up(rte_strerror(rte_errno));
        }
    }

    void create(const std::string& name, std::size_t bytes) override {
        const rte_memzone* zone = rte_memzone_reserve(name.c_str(), bytes, SOCKET_ID_ANY, 0);
        if (zone == nullptr) {
            give_up(name + ": " + rte_strerror(rte_errno));
        }
        std::memset(zone->addr, 0, bytes);
    }

    void find(const std::string& name, std::size_t /*bytes*/) override { zone_of(name); }

    void remove(const std::string& name) override { rte_memzone_free(zone_of(name)); }

    void touch(const std::string& name, std::size_t bytes) override {
        auto* memory = static_cast<volatile char*>(zone_of(name)->addr);
        for (std::size_t i = 0; i < bytes; i += 4096) {
            memory[i] = 1;
        }
    }

  private:
    static const rte_memzone* zone_of(const std::string& name) {
        const rte_memzone* zone = rte_memzone_lookup(name.c_str());
        if (zone == nullptr) {
            give_up(name + " is not there");
        }
        return zone;
    }
};

} // namespace

std::unique_ptr<contender> join_contest() {
    return std::make_unique<dpdk_contender>();
}
