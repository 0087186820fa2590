#pragma once

#include "repair_order.hpp"

#include <cstddef>
#include <cstdint>
#include <fmt/format.h>
#include <span>
#include <string_view>

namespace tarvoctl {

/// Turns what was decided into edits: only bytes that are not yet as they should be.
class plan_writer {
  public:
    plan_writer(const shared_area_t& area, repair_plan& plan) : _bytes(raw(area)), _plan(plan) {}

    /// Links the elements in that order, gives all others back and completes the free chain.
    void write_list(const list_links& links, const decided_list& decided);
    /// The same, but a list that needs many edits gets a single one: nobody can read
    /// a plan of millions of edits.
    void write_small_list(const list_links& links, const decided_list& decided);
    void set_byte(size_t offset, uint8_t value, place where, std::string_view why);

  private:
    bool holds(size_t offset, std::span<const uint8_t> wanted) const;
    using link_text = fmt::format_string<int32_t&>;
    void set_link(size_t offset, int32_t value, place where, link_text why);
    /// Clears as little as makes the bytes zero.
    void clear(size_t offset, size_t bytes, place where, std::string_view why);
    void write(size_t offset, std::span<const uint8_t> after, place where, std::string_view why);
    void fuse(size_t first_edit, size_t offset, size_t bytes, place where);
    void write_order(const list_links& links, const std::vector<int>& order);
    void write_ends(const list_links& links, const std::vector<int>& order);
    void write_free_chain(const list_links& links, const std::vector<bool>& in_use);

    std::span<const uint8_t> _bytes;
    repair_plan& _plan;
};

} // namespace tarvoctl
