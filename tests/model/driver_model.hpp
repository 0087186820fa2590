#pragma once

#include "driver_rule.hpp"
#include "world.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace model {

/// A line of /proc/tarvo after the first one; what is missing is not in the line.
struct listing_line {
    std::string name;
    std::optional<uint64_t> pa;
    std::optional<uint64_t> size;
};

/// What one open of /proc/tarvo shows.
struct listing {
    bool has_region_line = true;
    std::vector<listing_line> lines;

    bool is_empty() const { return !has_region_line && lines.empty(); }
};

/// The kernel driver, as tarvo-sandbox(1) describes its double.
class driver {
  public:
    explicit driver(const world& where)
        : _is_simulated(where.simulated), _start(where.start), _end(where.end()) {}

    void replace_rules(const std::vector<std::string>& rules);

    /// Each returns 0 or the errno it answers.
    int open_for_reading(listing& seen);
    int open_for_writing(const std::string& file);
    int write(const std::string& file, const request& asked, const std::string& line);
    int close(const std::string& file, const request* asked = nullptr);

    /// What was asked since the last time, each as shown() of driver_event says it.
    std::vector<std::string> take_events();

  private:
    struct allocation {
        std::string name;
        uint64_t pa;
        uint64_t size;
    };

    driver_rule* answer_to(const driver_call& call);
    bool is_possible(const request& asked) const;
    int answer_write(const request& asked, size_t length, const driver_rule* answer);
    int allocate(const request& asked, const driver_rule* answer);
    int release(const request& asked);
    std::optional<uint64_t> first_room(uint32_t size) const;
    bool is_room(uint64_t pa, uint64_t bytes) const;
    listing listing_now(const driver_rule* bending) const;
    void note(const driver_call& call, const std::string& bytes, int error);

    bool _is_simulated;
    uint64_t _start;
    uint64_t _end;
    std::vector<allocation> _allocations;
    std::vector<driver_rule> _rules;
    std::vector<std::string> _events;
};

} // namespace model
