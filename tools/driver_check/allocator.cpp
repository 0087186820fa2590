#include "clause.hpp"
#include "common/quantities.hpp"
#include "common/shown.hpp"
#include "driver_files.hpp"
#include "lines.hpp"
#include "own_memory.hpp"
#include "region.hpp"
#include "shared/paths.hpp"
#include "tarvo/chunk.hpp"

#include <cerrno>
#include <fmt/format.h>
#include <string>
#include <vector>

namespace driver_check {

namespace {

/// A command of a check's own, undone when the object goes.
class own_allocation {
  public:
    own_allocation(std::string name, uint64_t bytes)
        : _name{std::move(name)}, _bytes{bytes}, _line{allocate_line(_name, bytes)},
          _answer{send(paths::region_driver, _line)} {}
    ~own_allocation() { send_unasked(paths::region_driver, release_line(_name, _bytes)); }
    own_allocation(const own_allocation&) = delete;
    own_allocation& operator=(const own_allocation&) = delete;

    const std::string& line() const { return _line; }

    /// What the driver lists for it; throws a breach where it has not given the memory.
    allocation listed() const {
        require(is_accepted(_answer, _line), answer_text(_line, _answer) + "; it must be accepted");
        const auto found = find_allocation(allocations_in(read_listing()), _name, _bytes);
        require(found.has_value(),
                fmt::format("\"{}\" of {} was given, and the listing has no line of that name and "
                            "size",
                            _name, size_text(_bytes)));
        return *found;
    }

  private:
    std::string _name;
    uint64_t _bytes;
    std::string _line;
    answer _answer;
};

std::string range_text(const allocation& each) {
    return fmt::format("\"{}\", {}", shown(each.name), pa_range(each.pa, each.pa + each.bytes));
}

bool lies_in(const allocation& each, const region_line& region) {
    return region.first_pa <= each.pa && each.pa <= region.last_pa &&
           each.bytes - 1 <= region.last_pa - each.pa;
}

bool is_whole_pages(const allocation& each) {
    return each.bytes != 0 && each.pa % page_size() == 0 && each.bytes % page_size() == 0;
}

void require_room_of_its_own(const std::vector<allocation>& all, const region_line& region) {
    for (const allocation& each : all) {
        require(is_whole_pages(each) && lies_in(each, region),
                range_text(each) + ", is not whole pages of the region");
        for (const allocation* other = all.data(); other != &each; ++other) {
            require(each.pa + each.bytes <= other->pa || other->pa + other->bytes <= each.pa,
                    fmt::format("{}, overlaps {}", range_text(each), range_text(*other)));
        }
    }
}

void check_listing_lines(const subject& /*all*/) {
    allocations_in(read_listing());
}

void check_listed_memory(const subject& all) {
    require_room_of_its_own(allocations_in(read_listing()), *all.region);
}

void require_refusal_without_trace(const std::vector<std::string>& lines) {
    const std::string before = read_listing();
    for (const std::string& line : lines) {
        const answer given = send(paths::region_driver, line);
        if (given.error == 0 && line.starts_with('a')) {
            send_unasked(paths::region_driver, 'r' + line.substr(1));
        }
        require(given.error != 0 && given.error != EEXIST,
                answer_text(line, given) + "; it must be refused, and not by EEXIST");
        require(read_listing() == before, answer_text(line, given) + ", and the listing changed");
    }
}

void check_malformed_commands(const subject& /*all*/) {
    const std::string name = own_name("malformed");
    require_refusal_without_trace(
        {"\n", "a\n", "a " + name + "\n", "b " + name + " 1000\n", "a " + name + " pages\n",
         "a " + name + " 0\n", "a " + name + " 1000 1000\n", "a " + name + " 10000000000000000\n",
         std::string(longest_garbage_bytes, 'a') + "\n", std::string("a \0 1000\n", 9),
         "\xff\xfe\n"});
}

void check_unknown_release(const subject& /*all*/) {
    const std::string before = read_listing();
    const std::string line = release_line(own_name("unknown"), page_size());
    const answer given = send(paths::region_driver, line);
    require(read_listing() == before, answer_text(line, given) + ", and the listing changed");
}

void check_plain_region(const subject& /*all*/) {
    require_refusal_without_trace({release_line(own_name("plain"), page_size())});
}

void check_allocation(const subject& all) {
    const own_allocation made{own_name("new"), 2 * page_size()};
    made.listed();
    require_room_of_its_own(allocations_in(read_listing()), *all.region);
}

void check_repetition(const subject& /*all*/) {
    const own_allocation made{own_name("again"), page_size()};
    const allocation first = made.listed();
    const answer given = send(paths::region_driver, made.line());
    require(given.error == EEXIST || is_accepted(given, made.line()),
            answer_text(made.line(), given) + " the second time; it must be EEXIST");
    const allocation second = made.listed();
    require(first.pa == second.pa, fmt::format("asked for again, {} is listed at {}",
                                               range_text(first), pa_text(second.pa)));
}

void check_two_names(const subject& all) {
    const own_allocation one{own_name("one"), page_size()};
    const own_allocation other{own_name("other"), page_size()};
    require_room_of_its_own({one.listed(), other.listed()}, *all.region);
}

void check_too_much(const subject& all) {
    const uint64_t region_bytes = all.region->last_pa + 1 - all.region->first_pa;
    require_refusal_without_trace({allocate_line(own_name("much"), region_bytes + page_size())});
}

void check_release(const subject& /*all*/) {
    const own_allocation made{own_name("gone"), page_size()};
    const allocation held = made.listed();
    const std::string line = release_line(held.name, held.bytes);
    const answer given = send(paths::region_driver, line);
    require(is_accepted(given, line), answer_text(line, given) + "; it must be accepted");
    require(!find_allocation(allocations_in(read_listing()), held.name, held.bytes),
            range_text(held) + ", is still listed after it was released");
}

/// As the library does where a name is held with another size: it asks, and releases after a
/// refusal.
void check_other_size(const subject& /*all*/) {
    const own_allocation made{own_name("sized"), page_size()};
    const allocation first = made.listed();
    send_unasked(paths::region_driver, allocate_line(first.name, 2 * page_size()));
    const std::string line = release_line(first.name, 2 * page_size());
    const answer given = send(paths::region_driver, line);
    const auto second = find_allocation(allocations_in(read_listing()), first.name, first.bytes);
    require(second && second->pa == first.pa,
            fmt::format("{}, and {} is no longer listed there", answer_text(line, given),
                        range_text(first)));
}

void check_long_name(const subject& /*all*/) {
    std::string name = own_name("");
    name.resize(tarvo::longest_name, 'n');
    own_allocation{name, page_size()}.listed();
}

} // namespace

std::span<const clause> allocator_clauses() {
    static constexpr clause clauses[] = {
        {"3.1", "A listing line has three fields", need::cma_region, check_listing_lines},
        {"3.2", "Listed memory is in the region and does not overlap", need::cma_region,
         check_listed_memory},
        {"3.3", "A malformed command is refused", need::cma_region, check_malformed_commands},
        {"3.4", "Releasing an unknown name changes nothing", need::cma_region,
         check_unknown_release},
        {"3.5", "A plain region refuses commands", need::plain_region, check_plain_region},
        {"3.6", "An allocation is listed with its name and size", need::cma_device,
         check_allocation},
        {"3.7", "A name that is held keeps its memory", need::cma_device, check_repetition},
        {"3.8", "Two names have different memory", need::cma_device, check_two_names},
        {"3.9", "A request larger than the free memory fails", need::cma_device, check_too_much},
        {"3.10", "Released memory is no longer listed", need::cma_device, check_release},
        {"3.11", "A name of 49 bytes is kept whole", need::cma_device, check_long_name},
        {"3.13", "A held name of another size keeps its memory", need::cma_device,
         check_other_size},
    };
    return clauses;
}

} // namespace driver_check
