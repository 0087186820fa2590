#include "commands/commands.hpp"
#include "host/area_follower.hpp"
#include "host/area_source.hpp"
#include "host/mappings.hpp"
#include "output/live_screen.hpp"
#include "output/text.hpp"
#include "output/top_page.hpp"
#include "program.hpp"
#include "quantities.hpp"

#include <chrono>
#include <fmt/format.h>
#include <memory>

namespace tarvoctl {

namespace {

struct top_options {
    area_source source{{}, std::chrono::seconds{1}}; // a screen that stands still says nothing
    std::chrono::milliseconds interval{1000};
};

std::string title_of(const std::string& area, const char* hint) {
    return fmt::format("tarvoctl top  {}  {}{}", time_text(std::chrono::system_clock::now()), area,
                       hint);
}

/// Draws what each look finds.
class live_view {
  public:
    std::string page_of(area_look look) {
        if (look.records) {
            records_ = std::move(look.records);
            title_ = title_of(look.area, look.found != area_look::state::changing
                                             ? "  q ends"
                                             : "  HALF CHANGED: read without the lock");
            return page_with(title_);
        }
        if (look.found == area_look::state::locked && records_)
            return page_with(title_ + "  OLD: the lock is not free, see 'tarvoctl lock'");
        records_.reset();
        return title_of(look.area, "  q ends") +
               (look.found == area_look::state::locked
                    ? "\n\nThe lock is not free; 'tarvoctl lock' tells who holds it."
                    : "\n\nThere is no area. The first program that uses the library makes it.");
    }

  private:
    std::string page_with(const std::string& title) const {
        return top_page({*records_, mappings_of(find_site()), title, standard_screen(),
                         static_cast<std::size_t>(live_screen::height())});
    }

    std::optional<picture> records_; ///< as they were seen last
    std::string title_;
};

exit_status live(const top_options& options) {
    area_follower follower{options.source};
    live_view view;
    // Before the screen is taken, so that an area that cannot be read is told in the usual way.
    area_look look = follower.look();
    const live_screen screen;
    live_screen::show(view.page_of(std::move(look)));
    while (!live_screen::end_is_wanted_within(options.interval))
        live_screen::show(view.page_of(follower.look()));
    return exit_status::good;
}

exit_status one_page(const top_options& options) {
    const picture records = read_picture(options.source);
    const site here = find_site();
    fmt::print("{}", top_page({records, mappings_of(here), title_of(here.area, ""),
                               standard_screen(), 0}));
    return told_damage(records.damage);
}

exit_status top(const top_options& options) {
    return live_screen::is_possible() ? live(options) : one_page(options);
}

} // namespace

void add_top(program& to) {
    const auto options = std::make_shared<top_options>();
    command_words command =
        to.add("top", "the region, its chunks and devices on the whole screen, as they change",
               looking, options, top);
    command.interval(options->interval);
    command.live(options->source);
}

} // namespace tarvoctl
