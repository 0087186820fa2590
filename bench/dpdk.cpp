#include "backend.hpp"

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_memzone.h>
#include <sched.h>

namespace {

constexpr std::uintmax_t memory_mebibytes = 64;

/// Named memory zones, without huge pages and devices. Up to some 2500 of them.
///
/// Secondary processes attach through the files of huge pages, which are missing here. Processes
/// that are forked from one that has joined share all the same: the zones, their locks and the
/// memory are mapped shared, provided that the configuration is (no --no-shconf).
class dpdk_backend : public backend {
  public:
    dpdk_backend() {
        setenv("RUNTIME_DIRECTORY", "/dev/shm", 1); // a file system in memory, as /run is
        cpu_set_t processors;
        sched_getaffinity(0, sizeof processors, &processors);
        start();
        sched_setaffinity(0, sizeof processors, &processors); // it has bound itself to one
    }

    void create(const std::string& name, size_t bytes) override {
        const rte_memzone* zone = rte_memzone_reserve(name.c_str(), bytes, SOCKET_ID_ANY, 0);
        if (zone == nullptr) {
            fail(name + ": " + rte_strerror(rte_errno));
        }
        std::memset(zone->addr, 0, bytes);
    }

    void find(const std::string& name, size_t /*bytes*/) override { zone_of(name); }

    void remove(const std::string& name) override { rte_memzone_free(zone_of(name)); }

    void touch(const std::string& name, size_t bytes) override {
        auto* memory = static_cast<volatile char*>(zone_of(name)->addr);
        for (size_t i = 0; i < bytes; i += 4096) {
            memory[i] = 1;
        }
    }

    /// The memory has a file without a path; the others lie in one folder.
    std::uintmax_t file_bytes() override {
        std::uintmax_t sum = memory_mebibytes << 20U;
        for (const auto& file : std::filesystem::directory_iterator(rte_eal_get_runtime_dir())) {
            sum += file.is_regular_file() ? file.file_size() : 0;
        }
        return sum;
    }

  private:
    static void start() {
        std::array<std::string, 10> words{"bench",       "--no-huge",
                                          "--no-pci",    "--no-telemetry",
                                          "-m",          std::to_string(memory_mebibytes),
                                          "-l",          "0",
                                          "--log-level", "critical"};
        std::array<char*, words.size()> arguments{};
        for (size_t i = 0; i < words.size(); i++) {
            arguments[i] = words[i].data();
        }
        if (rte_eal_init(static_cast<int>(arguments.size()), arguments.data()) < 0) {
            fail(rte_strerror(rte_errno));
        }
    }

    static const rte_memzone* zone_of(const std::string& name) {
        const rte_memzone* zone = rte_memzone_lookup(name.c_str());
        if (zone == nullptr) {
            fail(name + " is missing");
        }
        return zone;
    }
};

} // namespace

std::unique_ptr<backend> make_backend() {
    return std::make_unique<dpdk_backend>();
}
