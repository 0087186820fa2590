#include "output/top_page.hpp"

#include "area/gaps.hpp"
#include "common/quantities.hpp"
#include "output/region_bar.hpp"
#include "output/table.hpp"
#include "output/text.hpp"
#include "shared/layout.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <fmt/format.h>
#include <map>
#include <numeric>
#include <sstream>
#include <string_view>
#include <vector>

namespace tarvoctl {

namespace {

using lines = std::vector<std::string>;

lines lines_of(const std::string& text) {
    lines made;
    std::istringstream stream{text};
    for (std::string line; std::getline(stream, line);) {
        made.push_back(line);
    }
    return made;
}

class page {
  public:
    explicit page(const top_view& view) : _view{view} {}

    top_drawing draw() {
        add_summary();
        if (is_low()) {
            add_chunks(room());
        } else {
            const lines devices = device_lines();
            const size_t left = room();
            const size_t for_devices =
                devices.size() <= left / 3 ? devices.size() : std::max<size_t>(left / 3, 2);
            add_blank();
            add_chunks(left - std::min(left, for_devices + 2));
            add_blank();
            add_table(devices, room());
        }
        if (is_limited()) {
            add_footer();
        }
        return {joined(), _first, _shown};
    }

  private:
    bool is_limited() const { return _view.height != 0; }
    /// So low that the lines about the region as a whole would leave no room for chunks.
    bool is_low() const {
        constexpr size_t least_height = 16;
        return is_limited() && _view.height < least_height;
    }

    /// Lines that are still free above the footer.
    size_t room() const {
        if (!is_limited()) {
            return SIZE_MAX;
        }
        return _view.height - std::min(_view.height, _made.size() + 1);
    }

    void add(const std::string& line) {
        _made.push_back(is_limited() ? cut_to_width(line, static_cast<size_t>(_view.on.width))
                                     : line);
    }
    void add_blank() { _made.emplace_back(); }

    void add_summary() {
        const picture& records = _view.records;
        const dma_window& region = records.region;
        add(_view.title);
        if (is_low()) {
            add(free_text());
            add_damage();
            return;
        }
        add(records.has_region() ? fmt::format("region  DMA {}  physical {}",
                                               dma_range(region, region.first_pa, region.end_pa),
                                               pa_range(region.first_pa, region.end_pa))
                                 : "region  unknown");
        add_bar();
        add(free_text());
        constexpr int most_chunks = chunk_capacity - 2; // the others bound the region
        add(fmt::format("in use  {} of {} chunk records, {} of {} device records, by {}{}",
                        records.chunks.size(), most_chunks, records.devices.size(), device_capacity,
                        counted(_view.memory.users.size(), "process"),
                        _view.memory.is_complete() ? "" : " and those that cannot be seen"));
        add_damage();
    }

    void add_damage() {
        for (const auto& each : _view.records.damage) {
            add("DAMAGED " + each);
        }
    }

    std::string free_text() const {
        const picture& records = _view.records;
        if (!records.all_chunks) {
            return "free    unknown";
        }
        constexpr int percent = 100;
        const free_space free = free_space_of(gaps_of(records));
        const auto [total, region, largest] =
            size_texts<3>({free.total_bytes, records.region.end_pa - records.region.first_pa,
                           free.largest_bytes});
        return fmt::format("free    {} of {}, largest gap {}, fragmentation {:.0f} %", total,
                           region, largest, percent * free.fragmentation());
    }

    /// Not clipped: its lines hold colours, and know the screen's width.
    void add_bar() {
        constexpr size_t small_height = 20;
        if (!_view.records.has_region()) {
            return;
        }
        const size_t bar_lines = is_limited() && _view.height < small_height ? 1 : 2;
        for (auto& line : lines_of(region_bar(_view.records, _view.on, bar_lines))) {
            _made.push_back(std::move(line));
        }
    }

    /// The chunks' positions, the largest first where they are by size; those that are alike by
    /// address.
    std::vector<size_t> in_order() const {
        const auto& chunks = _view.records.chunks;
        std::vector<size_t> order(chunks.size());
        std::iota(order.begin(), order.end(), 0);
        std::ranges::stable_sort(order, [&](size_t a, size_t b) {
            return _view.order == top_order::size   ? chunks[a].size > chunks[b].size
                   : _view.order == top_order::name ? chunks[a].name < chunks[b].name
                                                    : a < b;
        });
        return order;
    }

    /// A row of the chunks' table: the others without those that are shifted out, and the name
    /// second or, where there are such, first.
    template <typename Cell>
    std::vector<Cell> with_name(std::vector<Cell> others, Cell name) const {
        const auto shifted = static_cast<std::ptrdiff_t>(_view.shifted_columns);
        others.erase(others.begin(), others.begin() + shifted);
        others.insert(others.begin() + (shifted == 0 ? 1 : 0), std::move(name));
        return others;
    }

    /// It leaves room for the columns that were shifted in.
    std::string name_cell(const chunk_record& chunk) const {
        const std::string name = shown_name(chunk.name);
        const auto half = static_cast<size_t>(_view.on.width) / 2;
        return _view.shifted_columns == 0 ? name : cut_to_width(name, half);
    }

    lines chunk_lines() const {
        table rows{with_name(
            {{"SIZE", align::right}, {"HOLDERS", align::right}, {"DMA"}, {"CREATOR"}, {"DEVICES"}},
            column{"NAME"})};
        for (const size_t position : in_order()) {
            const chunk_record& chunk = _view.records.chunks[position];
            rows.add(with_name<std::string>(
                {size_text(chunk.size), fmt::format("{}", holders_of(chunk, _view.memory).size()),
                 dma_text(_view.records.region.dma_of(chunk.pa)), shown_name(chunk.creator),
                 devices_text(chunk, _view.records)},
                name_cell(chunk)));
        }
        return lines_of(rows.text());
    }

    lines device_lines() const {
        std::map<int, size_t> seen;
        for (const auto& chunk : _view.records.chunks) {
            for (const int index : chunk.devices) {
                ++seen[index];
            }
        }
        table rows{{{"DEVICE"}, {"STATE"}, {"CHUNKS", align::right}}};
        for (const auto& device : _view.records.devices) {
            rows.add({device_text(device), device.online ? "online" : "offline",
                      fmt::format("{}", seen[device.index])});
        }
        return lines_of(rows.text());
    }

    /// The titles, and as many chunks as there is room for.
    void add_chunks(size_t most_lines) {
        const lines all = chunk_lines();
        if (most_lines == 0) {
            return;
        }
        const size_t chunks = all.size() - 1;
        _shown = std::min(chunks, most_lines - 1);
        _first = std::min(_view.first_chunk, chunks - _shown);
        add(all.front());
        for (size_t i = 1; i <= _shown; ++i) {
            add(all[_first + i]);
        }
    }

    /// On the last line: what is shown, and the keys in the longest form for which there is room.
    void add_footer() {
        constexpr const char* orders[] = {"size", "name", "address"};
        constexpr std::array keys{"  s sort  jk scroll  hl columns  PgUp PgDn Home End  q quit",
                                  "  s sort  jk scroll  hl columns  q quit",
                                  "  s sort  jkhl move  q quit", "  s jk hl  q quit", "  q quit"};
        const size_t chunks = _view.records.chunks.size();
        const std::string position =
            fmt::format("{}-{} of {} by {}", std::min(_first + 1, chunks), _first + _shown, chunks,
                        orders[static_cast<int>(_view.order)]);
        const auto width = static_cast<size_t>(_view.on.width);
        const auto* const fitting =
            std::find_if(keys.begin(), keys.end() - 1, [&](std::string_view each) {
                return position.size() + each.size() <= width;
            });
        _made.resize(_view.height - 1);
        add(position.size() + std::string_view{*fitting}.size() <= width ? position + *fitting
                                                                         : "q quit");
    }

    /// As many rows as there is room for, and how many there is none for. The first line, with the
    /// titles, does not count.
    void add_table(const lines& table_lines, size_t most_lines) {
        const bool fits = table_lines.size() <= most_lines;
        const size_t kept = fits ? table_lines.size() : std::max<size_t>(most_lines, 1) - 1;
        for (size_t i = 0; i < kept; ++i) {
            add(table_lines[i]);
        }
        if (!fits && most_lines > 0) {
            const size_t shown_rows = std::max<size_t>(kept, 1) - 1;
            add(fmt::format("... and {} more", table_lines.size() - 1 - shown_rows));
        }
    }

    /// A page that fills the screen does not end its last line: that would move it up.
    std::string joined() const {
        const size_t count = is_limited() ? std::min(_view.height, _made.size()) : _made.size();
        std::string text;
        for (size_t i = 0; i < count; ++i) {
            text += _made[i] + (is_limited() && i + 1 == count ? "" : "\n");
        }
        return text;
    }

    const top_view& _view;
    lines _made;
    size_t _first = 0; ///< chunk on the page
    size_t _shown = 0; ///< chunks on it
};

} // namespace

top_drawing top_page(const top_view& view) {
    return page{view}.draw();
}

} // namespace tarvoctl
