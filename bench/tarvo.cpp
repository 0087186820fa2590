#include "tarvo.h"

#include "backend.hpp"

#include <cstdint>
#include <filesystem>

namespace {

constexpr uint32_t page = 4096; // bytes

class tarvo_backend : public backend {
  public:
    tarvo_backend() {
        uint32_t start = 0;
        uint32_t end = 0;
        if (tarvo_get_limits(&start, &end) != 0) {
            fail("libtarvo does not start");
        }
    }

    void create(const std::string& name, size_t bytes) override {
        if (tarvo_alloc_func(name.c_str(), bytes, "bench") == 0) {
            fail("no chunk for " + name);
        }
    }

    void find(const std::string& name, size_t bytes) override { create(name, bytes); }

    void remove(const std::string& name) override {
        if (tarvo_free(name.c_str()) != 0) {
            fail(name + " cannot be freed");
        }
    }

    void touch(const std::string& name, size_t bytes) override {
        auto* memory = static_cast<volatile char*>(tarvo_map(name.c_str(), true, 0, 0));
        if (memory == nullptr) {
            fail(name + " cannot be mapped");
        }
        for (size_t i = 0; i < bytes; i += page) {
            memory[i] = 1;
        }
        tarvo_unmap(name.c_str(), const_cast<char*>(memory), 0);
    }

    /// Of the picture that processes share; the region itself stands for hardware.
    std::uintmax_t file_bytes() override {
        return std::filesystem::file_size("/var/tmp/tarvo_lib");
    }

    std::map<std::string, std::function<double(int)>> extra_works() override {
        return {
            {"list", [](int) { return time_of(list_all); }},
            {"locate", locate},
            {"large", [this](int mebibytes) { return large(mebibytes); }},
            {"register", [](int) { return time_of(register_one); }},
            {"devices", register_devices},
        };
    }

  private:
    static void list_all() {
        char line[512];
        tarvo_dump_begin();
        while (tarvo_dump_next(line, sizeof line)) {
        }
        tarvo_dump_end();
    }

    /// By the address of the chunk that fills that page of the region, a hundred times.
    static double locate(int number) {
        constexpr int times = 100;
        uint32_t first = 0;
        uint32_t end = 0;
        tarvo_get_limits(&first, &end);
        const uint32_t dma = first + static_cast<uint32_t>(number) * page;
        return time_of([dma] {
                   uint32_t start = 0;
                   for (int i = 0; i < times; i++) {
                       if (tarvo_find(dma, &start) == nullptr) {
                           fail("a chunk is not found by its address");
                       }
                   }
               }) /
               times;
    }

    /// Made, touched and freed, in the same memory as the last time.
    double large(int mebibytes) {
        const size_t bytes = static_cast<size_t>(mebibytes) << 20U;
        const double time = time_of([&] {
            create("large", bytes);
            touch("large", bytes);
        });
        remove("large");
        return time;
    }

    static void register_one() {
        if (tarvo_register_device(0, 200, 0) != 0 || tarvo_unregister_device(0, 200, 0) != 0) {
            fail("a device cannot be registered");
        }
    }

    static double register_devices(int count) {
        for (int i = 0; i < count; i++) {
            tarvo_register_device(0, static_cast<uint32_t>(i), 0);
        }
        return 0;
    }
};

} // namespace

std::unique_ptr<backend> make_backend() {
    return std::make_unique<tarvo_backend>();
}
