#include "area/changes.hpp"
#include "commands/commands.hpp"
#include "common/failure.hpp"
#include "common/quantities.hpp"
#include "host/area_follower.hpp"
#include "host/area_source.hpp"
#include "host/ending_signals.hpp"
#include "output/change_text.hpp"
#include "output/json.hpp"
#include "output/standard_output.hpp"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fmt/format.h>
#include <memory>
#include <thread>
#include <unistd.h>
#include <utility>

namespace tarvoctl {

namespace {

struct watch_options {
    polling_options polling;
    bool json = false;
};

void end_well(int /*signal*/) {
    ::_exit(static_cast<int>(exit_status::good));
}

/// Until interrupted, and that is a good end. Every line is written out at once, so none is lost.
void end_well_when_interrupted() {
    handle_signal(SIGINT, end_well);
    handle_signal(SIGTERM, end_well);
}

/// Prints one line after the other, each with the time at which it was noticed.
class reporter {
  public:
    explicit reporter(bool as_json) : _as_json{as_json} {}

    void print(const change& each) const {
        if (_as_json) {
            print_document(json_change(each));
        } else {
            print_line(change_text(each));
        }
    }

    /// What became of the area itself: `word` is "found", "gone" or "replaced".
    void print_area(const char* word, const area_look& look) const {
        const size_t chunks = look.records ? look.records->chunks.size() : 0;
        const size_t devices = look.records ? look.records->devices.size() : 0;
        if (_as_json) {
            print_document({{"change", fmt::format("area_{}", word)},
                            {"area", look.area},
                            {"chunk_count", chunks},
                            {"device_count", devices}});
        } else if (look.records) {
            print_line(fmt::format("area {:<7}  {}: {}, {}", word, look.area,
                                   counted(chunks, "chunk"), counted(devices, "device")));
        } else {
            print_line(fmt::format("area {:<7}  {}", word, look.area));
        }
    }

    void print_damage(const std::vector<std::string>& damage) const {
        if (_as_json) {
            print_document({{"change", "damaged"}, {"damage", damage}});
        }
        for (const auto& each : damage) {
            if (!_as_json) {
                print_line(fmt::format("{:<12}  {}", "damaged", each));
            }
        }
    }

  private:
    static void print_line(const std::string& text) {
        fmt::print("{}  {}\n", exact_time_text(std::chrono::system_clock::now()), text);
        flush_output();
    }

    static void print_document(const json& what) {
        json document = json_document("watch");
        document["time"] = utc_time_text(std::chrono::system_clock::now());
        document.update(what);
        print_json(document);
        flush_output();
    }

    bool _as_json;
};

/// Makes lines of what the looks at the area find.
class watcher {
  public:
    explicit watcher(bool as_json) : _report{as_json} {}

    void take(area_look look) {
        switch (look.found) {
        case area_look::state::absent:
            take_absence(look);
            break;
        case area_look::state::locked:
            remark(look.obstacle + ". Waiting", "the lock"); // whoever holds it by now
            break;
        case area_look::state::inconsistent: // half a change would be reported as one
            remark("the area changed during every reading without its lock. Waiting");
            break;
        default:
            remark("");
            take_records(std::move(look));
        }
    }

  private:
    void take_absence(const area_look& look) {
        if (_present) {
            _report.print_area("gone", look);
        }
        _present = false;
        _last = {};
        _started = true;
        remark(fmt::format("waiting for {}", look.area));
    }

    void take_records(area_look look) {
        if (look.found == area_look::state::new_area) {
            take_new_area(look);
        }
        if (look.records->damage != _damage) {
            _damage = look.records->damage;
            _report.print_damage(_damage);
        }
        if (!_damage.empty()) { // what cannot be read is not gone
            return;
        }
        for (const auto& each : changes_between(_last, *look.records)) {
            _report.print(each);
        }
        _last = std::move(*look.records);
    }

    /// What is there at the start counts as no change. The content of an area that is made later
    /// does.
    void take_new_area(const area_look& look) {
        remark_on_region(look.records->region);
        _report.print_area(_present ? "replaced" : "found", look);
        _last = _started ? picture{} : *look.records;
        _started = true;
        _present = true;
        _damage.clear();
    }

    void remark(const std::string& text) { remark(text, text); }

    /// Reports once what goes on, on standard error; "" when it is over. Texts about the same
    /// obstacle are reported once.
    void remark(const std::string& text, const std::string& about) {
        if (about != _obstacle && !text.empty()) {
            fmt::print(stderr, "tarvoctl: {}\n", text);
        }
        _obstacle = about;
    }

    reporter _report;
    bool _started = false;
    bool _present = false;
    picture _last{}; ///< the records as they were reported last
    std::vector<std::string> _damage;
    std::string _obstacle;
};

exit_status watch(const watch_options& options) {
    end_well_when_interrupted();
    lay_json_out(json_layout::compact); // a line for each change
    watcher lines{options.json};
    poll_area(
        options.polling, [&lines](area_look look) { lines.take(std::move(look)); },
        [](std::chrono::steady_clock::time_point moment) {
            std::this_thread::sleep_until(moment);
            return true;
        });
    return exit_status::good;
}

} // namespace

template <>
action set_up<entry_of("watch")>(command_words& words) {
    const auto options = std::make_shared<watch_options>();
    words.json(options->json);
    words.polling(options->polling);
    return [options] { return watch(*options); };
}

} // namespace tarvoctl
