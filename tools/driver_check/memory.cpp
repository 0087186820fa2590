#include "clause.hpp"
#include "common/failure.hpp"
#include "common/lockdown.hpp"
#include "common/quantities.hpp"
#include "common/unique_fd.hpp"
#include "own_memory.hpp"
#include "region.hpp"
#include "shared/paths.hpp"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>

namespace driver_check {

namespace {

unique_fd open_memory() {
    unique_fd memory{::open(paths::physical_memory, O_RDWR | O_CLOEXEC)};
    if (!memory) {
        const int error = errno;
        throw breach{fmt::format("{} cannot be opened for reading and writing: {}{}",
                                 paths::physical_memory, error_text(error),
                                 error == EPERM && lockdown_level()
                                     ? "; the kernel is locked down, so bind a memory device of "
                                       "the driver's over it"
                                     : "")};
    }
    return memory;
}

/// One page of physical memory, as the library maps it.
class mapped_page {
  public:
    explicit mapped_page(uint64_t pa)
        : _address{::mmap(nullptr, page_size(), PROT_READ | PROT_WRITE, MAP_SHARED,
                          open_memory().get(), static_cast<off_t>(pa))} {
        const int error = errno;
        require(_address != MAP_FAILED,
                fmt::format("the page at {} cannot be mapped: {}", pa_text(pa), error_text(error)));
    }
    ~mapped_page() { ::munmap(_address, page_size()); }
    mapped_page(const mapped_page&) = delete;
    mapped_page& operator=(const mapped_page&) = delete;

    volatile uint64_t& first_word() const { return *static_cast<volatile uint64_t*>(_address); }

  private:
    void* _address;
};

void check_memory_opens(const subject& /*all*/) {
    open_memory();
}

void check_mapping(const subject& all) {
    const mapped_page first{all.region->first_pa};
    const mapped_page last{all.region->last_pa + 1 - page_size()};
}

/// Leaves every byte as it was.
void check_sharing(const subject& all) {
    const own_memory memory{all};
    const mapped_page one{memory.page_pa(0)};
    const mapped_page other{memory.page_pa(0)};
    const mapped_page neighbour{memory.page_pa(1)};
    const uint64_t before = one.first_word();
    const uint64_t before_beside = neighbour.first_word();
    one.first_word() = ~before;
    const uint64_t seen = other.first_word();
    const uint64_t seen_beside = neighbour.first_word();
    one.first_word() = before;
    require(seen == ~before, fmt::format("what was written at {} by one mapping is not seen by "
                                         "another",
                                         pa_text(memory.page_pa(0))));
    require(seen_beside == before_beside,
            fmt::format("what was written at {} changed the page at {}", pa_text(memory.page_pa(0)),
                        pa_text(memory.page_pa(1))));
}

} // namespace

std::span<const clause> memory_clauses() {
    static constexpr clause clauses[] = {
        {"2.1", "The memory device opens for reading and writing", need::nothing,
         check_memory_opens},
        {"2.2", "The region can be mapped", need::region, check_mapping},
        {"2.3", "Two mappings of a page show the same memory", need::device, check_sharing},
    };
    return clauses;
}

} // namespace driver_check
