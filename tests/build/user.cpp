#include <cstdio>
#include <tarvo.h>
#include <unistd.h>

namespace {

using any_function = void (*)();

/// What C++ calls by other symbols than C, beside some of the rest. A name that does not link fails
/// here.
const any_function functions[] = {
    reinterpret_cast<any_function>(tarvo_alloc_func),
    reinterpret_cast<any_function>(tarvo_dump_next),
    reinterpret_cast<any_function>(free_size),
    reinterpret_cast<any_function>(get_cma_allocation),
    reinterpret_cast<any_function>(free_cma_allocation),
    reinterpret_cast<any_function>(add_dev_to_chunk),
    reinterpret_cast<any_function>(remove_dev_from_chunk),
    reinterpret_cast<any_function>(map_unmap_chunk),
    reinterpret_cast<any_function>(map_chunk_all_devs),
    reinterpret_cast<any_function>(unmap_chunk_all_devs),
    reinterpret_cast<any_function>(map_chunks_to_dev),
    reinterpret_cast<any_function>(unmap_dev_all_chunks),
};

bool expect(bool holds, const char* what) {
    if (!holds) {
        std::printf("%s\n", what);
    }
    return holds;
}

} // namespace

int main() {
    bool good = true;
    for (const any_function function : functions) {
        good &= expect(function != nullptr, "a function does not exist");
    }
    const auto page_bytes = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    good &= expect(tarvo_get_overhead() == (70130716 + page_bytes - 1) / page_bytes * page_bytes,
                   "tarvo_get_overhead() is not the area rounded up to pages");
    good &= expect(to_string_err != nullptr && *to_string_err == "Error formatting string",
                   "to_string_err is not its text");
    return good ? 0 : 1;
}
