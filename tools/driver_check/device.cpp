#include "clause.hpp"
#include "common/failure.hpp"
#include "common/unique_fd.hpp"
#include "driver_files.hpp"
#include "own_memory.hpp"
#include "shared/paths.hpp"
#include "tarvo/units.hpp"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace driver_check {

namespace {

void check_map(const subject& all) {
    const own_memory memory{all};
    const device_mapping made{*all.device, memory.chunk(0, 1)};
}

void check_repeated_map(const subject& all) {
    const own_memory memory{all};
    const device_mapping made{*all.device, memory.chunk(0, 1)};
    require_accepted(request_line_of("map", *all.device, memory.chunk(0, 1)));
}

void check_unmap(const subject& all) {
    const own_memory memory{all};
    device_mapping made{*all.device, memory.chunk(0, 1)};
    made.undo();
}

void check_unmap_of_nothing(const subject& all) {
    const own_memory memory{all};
    device_mapping made{*all.device, memory.chunk(0, 1)};
    made.undo();
    const std::string line = request_line_of("unmap", *all.device, memory.chunk(0, 1));
    const answer given = send(paths::iommu_driver, line);
    require(is_accepted(given, line) || given.error == ENOENT,
            answer_text(line, given) + " the second time; it must be accepted, or be ENOENT");
}

/// What was mapped to one byte before its end is the same as to its end: three pages, and the next
/// one is free.
void check_page_rounding(const subject& all) {
    const own_memory memory{all};
    device_mapping made{*all.device, memory.chunk(0, own_memory::page_count - 1)};
    require_accepted(
        request_line_of("map", *all.device, memory.exact(0, own_memory::page_count - 1)));
    device_mapping beside{*all.device, memory.exact(own_memory::page_count - 1, 1)};
    beside.undo();
    made.undo();
    const device_mapping again{*all.device, memory.exact(0, own_memory::page_count)};
}

/// A driver that borrows the memory of chunks from the kernel has none of the rest to map.
void skip_where_chunks_alone_are_mapped(const tarvo::device& device, const requested_range& whole) {
    try {
        device_mapping{device, whole}.undo(0);
    } catch (const breach&) {
        throw not_applicable{"the driver maps chunks alone in this CMA region"};
    }
}

void check_whole_region(const subject& all) {
    const region_line& region = *all.region;
    const uint64_t bytes = region.last_pa + 1 - region.first_pa;
    if (bytes >= tarvo::largest_chunk.count()) {
        throw not_applicable{"the library sends no request for 2 GiB and more"};
    }
    const requested_range whole = range_to_the_end(region, region.first_pa, bytes);
    if (all.is_cma()) {
        skip_where_chunks_alone_are_mapped(*all.device, whole);
    }
    for (const unsigned prot : {1U, 2U, 3U}) {
        device_mapping made{*all.device, whole, prot};
        made.undo(0);
    }
}

void check_whole_lines(const subject& all) {
    const own_memory memory{all};
    const std::string line = request_line_of("map", *all.device, memory.chunk(0, 1));
    const device_mapping made{*all.device, memory.chunk(1, 1)}; // or there is no IOMMU to ask
    for (const std::string& part :
         {line + line, line.substr(0, line.size() - 1), line.substr(0, line.size() / 2)}) {
        const answer given = send_unacceptable(part);
        require(given.error != 0,
                answer_text(part, given) + "; a write must be one line with its newline");
    }
}

/// What a child process found: an empty text, or the breach.
std::string breach_in_child(const std::function<void()>& work) {
    try {
        work();
    } catch (const breach& found) {
        return found.text;
    }
    return {};
}

/// A child process that works beside this one.
class child {
  public:
    explicit child(const std::function<void()>& work) {
        std::array<int, 2> ends{-1, -1};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw failure{exit_status::unreadable, "cannot make a pipe: " + error_text(errno)};
        }
        _found.reset(ends[0]);
        const unique_fd writing{ends[1]};
        _pid = ::fork();
        if (_pid == -1) {
            throw failure{exit_status::unreadable, "cannot start a process: " + error_text(errno)};
        }
        if (_pid == 0) {
            const std::string text = breach_in_child(work);
            std::_Exit(::write(writing.get(), text.data(), text.size()) < 0 ? 1 : 0);
        }
    }
    ~child() { wait(); }
    child(const child&) = delete;
    child& operator=(const child&) = delete;

    /// Throws the breach that it has found.
    void require_success() {
        std::array<char, 1024> text{};
        const ssize_t length = ::read(_found.get(), text.data(), text.size());
        wait();
        if (length > 0) {
            throw breach{"in another process: " +
                         std::string{text.data(), static_cast<size_t>(length)}};
        }
    }

  private:
    void wait() {
        if (_pid > 0) {
            ::waitpid(_pid, nullptr, 0);
            _pid = -1;
        }
    }

    unique_fd _found;
    pid_t _pid = -1;
};

/// Each process maps and unmaps a page of its own, again and again.
void check_processes_side_by_side(const subject& all) {
    const own_memory memory{all};
    device_mapping{*all.device, memory.chunk(0, 1)}.undo(); // or there is no IOMMU to ask
    const auto work = [&](uint64_t page) {
        constexpr int rounds = 50;
        for (int i = 0; i < rounds; ++i) {
            require_accepted(request_line_of("map", *all.device, memory.chunk(page, 1)));
            require_accepted(request_line_of("unmap", *all.device, memory.chunk(page, 1)));
        }
    };
    std::array<std::unique_ptr<child>, own_memory::page_count> children;
    for (uint64_t page = 0; page < children.size(); ++page) {
        children[page] = std::make_unique<child>([&work, page] { work(page); });
    }
    for (const auto& each : children) {
        each->require_success();
    }
}

void check_mapping_outlives_its_process(const subject& all) {
    const own_memory memory{all};
    device_mapping{*all.device, memory.chunk(0, 1)}.undo(); // or there is no IOMMU to ask
    child{[&] {
        require_accepted(request_line_of("map", *all.device, memory.chunk(0, 1)));
    }}.require_success();
    require_accepted(request_line_of("unmap", *all.device, memory.chunk(0, 1)));
}

} // namespace

std::span<const clause> device_clauses() {
    static constexpr clause clauses[] = {
        {"5.1", "A chunk is mapped", need::device, check_map},
        {"5.2", "A repeated map is accepted", need::device, check_repeated_map},
        {"5.3", "What is mapped can be unmapped", need::device, check_unmap},
        {"5.4", "Unmapping what is not mapped does no harm", need::device, check_unmap_of_nothing},
        {"5.5", "Both kinds of end name the same pages", need::device, check_page_rounding},
        {"5.6", "The whole region is mapped with each protection", need::device,
         check_whole_region},
        {"5.7", "One write is one whole line", need::device, check_whole_lines},
        {"5.8", "Requests of several processes stay apart", need::device,
         check_processes_side_by_side},
        {"5.9", "A mapping outlives the process that made it", need::device,
         check_mapping_outlives_its_process},
    };
    return clauses;
}

} // namespace driver_check
