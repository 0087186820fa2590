// plugin_host LIBRARY: loads the library, uses it and unloads it, again and again, as a program
// does whose plug-ins need it. Reports after each time what it got, and what the process has open
// by then.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

namespace {

class plugin {
  public:
    explicit plugin(const char* library) : _handle(dlopen(library, RTLD_NOW)) {
        if (_handle == nullptr) {
            std::cout << dlerror() << std::endl;
            std::exit(EXIT_FAILURE);
        }
    }
    ~plugin() { dlclose(_handle); }
    plugin(const plugin&) = delete;
    plugin& operator=(const plugin&) = delete;

    template <typename Function>
    Function* function(const char* name) const {
        return reinterpret_cast<Function*>(dlsym(_handle, name));
    }

    uint32_t alloc() const {
        return function<uint32_t(const char*, size_t, const char*)>("tarvo_alloc_func")("rx_ring",
                                                                                        1, "host");
    }
    bool dump_begin() const { return function<bool()>("tarvo_dump_begin")(); }
    bool dump_next() const {
        std::array<char, 256> line{};
        return function<bool(char*, size_t)>("tarvo_dump_next")(line.data(), line.size());
    }
    int dump_end() const { return function<int()>("tarvo_dump_end")(); }

  private:
    void* _handle;
};

/// Without what else is open: the folder that is being read.
long open_descriptors() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return std::distance(begin(folder), end(folder)) - 1;
}

int mapped_areas() {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        count += line.ends_with("/tarvo_lib") ? 1 : 0;
    }
    return count;
}

void report(const std::string& what) {
    static const long at_first = open_descriptors();
    std::cout << what << ": " << open_descriptors() - at_first << " descriptors, " << mapped_areas()
              << " areas" << std::endl;
}

std::string allocated(const plugin& library) {
    return "allocated " + std::to_string(library.alloc());
}

} // namespace

int main(int /*count*/, char** arguments) {
    const char* library = arguments[1];
    report("started");
    for (int time = 0; time < 3; ++time) {
        report(allocated(plugin(library)));
    }
    report(plugin(library).dump_begin() ? "listing" : "no listing");
    report(plugin(library).dump_next() ? "a chunk" : "no chunk");
    report(plugin(library).dump_begin() ? "listing again" : "no listing");
    report(plugin(library).dump_end() == 0 ? "ended" : "not ended");
    report(allocated(plugin(library)));
}
