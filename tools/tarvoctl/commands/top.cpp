#include "commands/commands.hpp"
#include "common/quantities.hpp"
#include "host/area_follower.hpp"
#include "host/area_source.hpp"
#include "host/mappings.hpp"
#include "output/live_screen.hpp"
#include "output/text.hpp"
#include "output/top_page.hpp"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <utility>

namespace tarvoctl {

namespace {

using clock = std::chrono::steady_clock;

std::string title_of(const std::string& area, const char* hint) {
    return fmt::format("tarvoctl top  {}  {}{}", time_text(std::chrono::system_clock::now()), area,
                       hint);
}

/// Draws what each look finds, and of it what a person wants to see.
class live_view {
  public:
    void take(area_look look) {
        if (look.records) {
            _records = std::move(look.records);
            _memory = mappings_of(find_site());
            _title = title_of(look.area, look.found != area_look::state::inconsistent
                                             ? ""
                                             : "  HALF CHANGED: read without the lock");
            _mark.clear();
        } else if (look.found == area_look::state::locked && _records) {
            _mark = "  OLD: the lock is not free, see 'tarvoctl lock'";
        } else {
            _records.reset();
            _title = title_of(look.area, "  q quit");
            _mark = look.found == area_look::state::locked
                        ? "\n\n" + look.obstacle
                        : "\n\nThere is no area. The first program that uses the library makes it.";
        }
    }

    /// Shows what was found last, and obeys keys; false where a person wants no more.
    bool serve_until(clock::time_point moment, live_screen& screen) {
        do {
            show();
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(moment - clock::now());
            const screen_key key = screen.key_within(std::max(left, std::chrono::milliseconds{0}));
            if (key == screen_key::quit) {
                return false;
            }
            obey(key);
        } while (clock::now() < moment);
        return true;
    }

  private:
    void obey(screen_key key) {
        switch (key) {
        case screen_key::sort:
            _order = next_of(_order);
            _first = 0;
            break;
        case screen_key::up:
            scroll_back(1);
            break;
        case screen_key::down:
            _first += 1;
            break;
        case screen_key::left:
            _shifted -= std::min<size_t>(_shifted, 1);
            break;
        case screen_key::right:
            _shifted = std::min(_shifted + 1, most_shifted_columns);
            break;
        case screen_key::page_up:
            scroll_back(_rows);
            break;
        case screen_key::page_down:
            _first += _rows;
            break;
        case screen_key::first:
            _first = 0;
            break;
        case screen_key::last:
            _first = SIZE_MAX;
            break;
        default:
            break;
        }
    }

    void show() {
        if (!_records) {
            live_screen::show(_title + _mark);
            return;
        }
        const top_drawing drawn =
            top_page({*_records, _memory, _title + _mark, standard_screen(),
                      static_cast<size_t>(live_screen::height()), _order, _shifted, _first});
        _first = drawn.first_chunk;
        _rows = drawn.chunks;
        live_screen::show(drawn.text);
    }

    static top_order next_of(top_order order) {
        return order == top_order::size   ? top_order::name
               : order == top_order::name ? top_order::address
                                          : top_order::size;
    }

    void scroll_back(size_t rows) { _first -= std::min(_first, rows); }

    std::optional<picture> _records; ///< as they were seen last
    mapped_memory _memory;           ///< as it was seen then
    std::string _title;
    std::string _mark; ///< after it: why there are no newer records
    top_order _order = top_order::size;
    size_t _shifted = 0; ///< columns
    size_t _first = 0;   ///< chunk on the page
    size_t _rows = 0;    ///< chunks on it
};

exit_status live(const polling_options& options) {
    live_view view;
    // Taken after the first look, so that an area that cannot be read is reported in the usual way.
    std::optional<live_screen> screen;
    poll_area(
        options, [&view](area_look look) { view.take(std::move(look)); },
        [&](clock::time_point moment) {
            if (!screen) {
                screen.emplace();
            }
            return view.serve_until(moment, *screen);
        });
    return exit_status::good;
}

exit_status one_page(const polling_options& options) {
    const picture records = read_picture(options.source);
    const site here = find_site();
    fmt::print(
        "{}",
        top_page({records, mappings_of(here), title_of(here.area, ""), standard_screen(), 0}).text);
    return report_damage(records.damage, options.source);
}

exit_status top(const polling_options& options) {
    return live_screen::is_possible() ? live(options) : one_page(options);
}

} // namespace

template <>
action set_up<entry_of("top")>(command_words& words) {
    const auto options = std::make_shared<polling_options>();
    options->source.timeout = std::chrono::seconds{1}; // the screen stands still meanwhile
    words.footer(
        "Keys: s sorts; arrows and hjkl move, left and right through the columns; q quits.");
    words.polling(*options);
    return [options] { return top(*options); };
}

} // namespace tarvoctl
