#include "comparison.hpp"

#include "client.hpp"
#include "real_machine.hpp"

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>

namespace model {

namespace {

/// The file has 70 MB, nearly all of which nothing ever touches: it is read as a whole only so
/// often, and after the last step.
constexpr size_t steps_between_whole_areas = 50;

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += "\n    " + ::quoted(line);
    }
    return text.empty() ? "\n    nothing" : text;
}

std::string shown_end(int signal) {
    return signal == 0 ? "lives" : std::string("is ended by: ") + strsignal(signal);
}

std::string apart(const std::string& what, const std::string& expected, const std::string& seen) {
    return what + "\n  expected: " + expected + "\n  seen:     " + seen;
}

std::string shown_length(const std::optional<uint64_t>& bytes) {
    return bytes ? "of " + std::to_string(*bytes) + " bytes" : "missing";
}

/// One machine, its model, and how far they came.
class comparison {
  public:
    explicit comparison(const playground& where) : _model(where), _machine(where) {}

    const prediction& now() const { return _model; }
    std::optional<std::string> play(const step& one);
    std::optional<std::string> compare_area(area_part part);

  private:
    prediction _model;
    real_machine _machine;
};

std::optional<std::string> comparison::play(const step& one) {
    const outcome expected = _model.carry_out(one);
    try {
        const outcome seen = _machine.carry_out(one, expected.signal);
        return difference_of(expected, seen);
    } catch (const std::exception& wrong) {
        return apart("the client",
                     shown_end(expected.signal) + ", reply " + ::quoted(expected.reply) +
                         ", standard error " + ::quoted(expected.error_text),
                     wrong.what());
    }
}

std::optional<std::string> comparison::compare_area(area_part part) {
    // Kept from comparison to comparison: it takes long to make.
    static image bytes;
    try {
        return difference_of(_model.machine().area, bytes, _machine.area(), part);
    } catch (const std::exception& wrong) {
        return std::string("shared area: ") + wrong.what();
    }
}

} // namespace

std::optional<std::string> difference_of(const outcome& expected, const outcome& seen) {
    if (expected.signal != seen.signal) {
        return apart("the client", shown_end(expected.signal), shown_end(seen.signal));
    }
    if (expected.reply != seen.reply) {
        return apart("reply", expected.reply, seen.reply);
    }
    if (expected.error_text != seen.error_text) {
        return apart("standard error", ::quoted(expected.error_text), ::quoted(seen.error_text));
    }
    if (expected.events != seen.events) {
        return apart("the driver's log", joined(expected.events), joined(seen.events));
    }
    return std::nullopt;
}

std::optional<std::string> difference_of(const shared_area& expected, image& bytes,
                                         std::optional<std::span<const uint8_t>> seen,
                                         area_part part) {
    const auto length = seen ? std::optional<uint64_t>(seen->size()) : std::nullopt;
    if (expected.file_bytes != length) {
        return apart("shared area", shown_length(expected.file_bytes), shown_length(length));
    }
    if (!expected.built) {
        const bool has_content =
            seen && std::ranges::any_of(*seen, [](uint8_t byte) { return byte != 0; });
        return has_content ? std::optional(apart("shared area", "only zeros", "other bytes"))
                           : std::nullopt;
    }
    bytes.show(expected);
    const auto found =
        part == area_part::all ? bytes.difference_anywhere(*seen) : bytes.difference(*seen);
    return found ? std::optional("shared area, " + *found) : std::nullopt;
}

verdict play(const playground& where, const step_source& source) {
    verdict result{{where, {}}, {}};
    comparison both(where);
    std::vector<step>& played = result.played.steps;
    std::optional<std::string> apart;
    while (!apart) {
        const std::optional<step> next = source(both.now());
        if (!next) {
            apart = both.compare_area(area_part::all);
            break;
        }
        if (!both.now().is_applicable(*next)) {
            continue;
        }
        played.push_back(*next);
        apart = both.play(*next);
        if (!apart) {
            const bool is_time = played.size() % steps_between_whole_areas == 0;
            apart = both.compare_area(is_time ? area_part::all : area_part::what_changes);
        }
    }
    if (apart) {
        result.found = {played.empty() ? 0 : played.size() - 1, *apart};
    }
    return result;
}

step_source steps_of(const script& all) {
    return [steps = all.steps, i = size_t{0}](const prediction& /*now*/) mutable {
        return i < steps.size() ? std::optional(steps[i++]) : std::nullopt;
    };
}

} // namespace model
