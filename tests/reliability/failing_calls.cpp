// failing_calls singles|pairs EVERY WORLD...: on a machine of each world, lets the calls of the C
// library that the library makes fail, and compares results, standard error, requests, area,
// descriptors and mappings with the model. singles: one at a time, each with each errno that it can
// have, in the first start of a machine and in each function, where that starts the library and
// where it had started; pairs: two failures in one call. EVERY: only each such case. Prints the
// figures. Ends with 1 at a difference, which it prints, and with 2 for arguments that mean
// nothing.

#include "comparison.hpp"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using texts = std::vector<std::string>;

// ---- What is called --------------------------------------------------------------------------

/// Process 0 is the one whose calls fail; process 1 is a neighbour, which goes on.
struct scene {
    texts before;
    std::string command;
    texts afterwards; ///< a step is left out where the failure made it pointless
};

const texts base{"1 register 0 3 0",
                 "1 register 0 4 17",
                 "1 register 1 3 0",
                 "1 alloc rx_ring 0x1000 test",
                 "1 alloc tx_ring 0x2000 test",
                 "1 alloc stats 0x1000 test"};
const texts start{"0 limits"};
const texts restart{"0 quit"};
const texts revive{"1 register 0 3 0", "1 register 0 4 17", "1 register 1 3 0"};
const texts make_rings{"1 alloc rx_ring 0x1000 test", "1 alloc tx_ring 0x2000 test",
                       "1 alloc stats 0x1000 test"};
const texts refuse_requests{"* rules op=any,file=sysfs,errno=EIO,nth=2"};
const texts refuse_nothing{"* rules"};

texts joined(std::initializer_list<texts> parts) {
    texts all;
    for (const texts& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

const texts without_fresh = joined({refuse_nothing, revive, {"1 free fresh"}});
const texts with_rings = joined({refuse_nothing, revive, make_rings});
const texts without_device = joined({refuse_nothing, revive, {"1 unregister 0 6 0"}});

const std::vector<scene> scenes{
    {{}, "limits", {"0 limits", "0 holdings"}},
    {{}, "alloc fresh 0x3000 test", without_fresh},
    {refuse_requests, "alloc fresh 0x3000 test", without_fresh},
    {{}, "alloc fresh 0x7ffff000 test", without_fresh},
    {{}, "alloc rx_ring 0x1000 test", {}},
    {{}, "free tx_ring", with_rings},
    {refuse_requests, "free tx_ring", with_rings},
    {{}, "free unknown", {}},
    {{}, "map m rx_ring 1 0 0", {"0 unmap rx_ring m 0"}},
    {{"0 map m rx_ring 1 0 0"}, "unmap rx_ring m 0", {"0 unmap rx_ring m 0"}},
    {{}, "find 0x80000000", {}},
    {{}, "to_pa 0x20000000", {}},
    {{}, "map_all", {"0 map_all", "0 quit"}},
    {{"0 map_all"}, "unmap_all", {"0 map_all", "0 quit"}},
    {{}, "register 0 6 0", without_device},
    {refuse_requests, "register 0 6 0", without_device},
    {{}, "unregister 0 4 17", revive},
    {refuse_requests, "unregister 0 4 17", with_rings},
    {{}, "iommu_map 0 6 0 3", {}},
    {{}, "iommu_unmap 0 6 0", {}},
    {{}, "dump_begin", {"0 dump_end"}},
    {{"0 dump_begin"}, "dump_next_device 256", {"0 dump_end"}},
    {{"0 dump_begin"}, "dump_end", {"1 limits"}},
};

/// On a machine where nothing has started.
const scene first_start{
    {},
    "limits",
    {"0 limits", "0 holdings", "1 alloc fresh 0x1000 test", "0 alloc fresh 0x1000 test"}};

// ---- What fails ------------------------------------------------------------------------------

const std::map<std::string, texts> errnos{
    {"open", {"ENOENT", "EACCES", "EMFILE", "EIO"}},
    {"ftruncate", {"EIO", "EFBIG", "ENOSPC"}},
    {"mmap64", {"ENOMEM", "EPERM"}},
    {"munmap", {"EINVAL", "ENOMEM"}},
    {"madvise", {"EFAULT", "EINVAL", "ENOMEM"}},
    {"flock", {"EINTR", "ENOLCK"}},
    {"fopen", {"EACCES", "ENOMEM", "ENODEV", "EUNATCH", "ENOSYS"}},
    {"fgets", {"EIO"}},
    {"write", {"EIO", "EEXIST", "ENOMEM"}},
    {"setvbuf", {"ENOMEM", "ENODEV"}},
    {"positive_setvbuf", {"EIO", "ENODEV"}},
    {"fprintf", {"EIO", "ENODEV", "EUNATCH", "ENOSYS", "EINVAL"}},
    {"fclose", {"EIO", "ENODEV", "ENOSYS"}},
    {"asprintf", {"ENOMEM"}},
};

struct failure {
    std::string call;
    std::string error;
    uint64_t nth;
};

/// One call, with failures in it.
struct trial {
    const scene* what;
    bool is_cold; ///< the library is not started yet
    std::vector<failure> failing;
};

std::string order(const failure& one) {
    return "0 fail " + one.call + " " + one.error + " " + std::to_string(one.nth);
}

texts steps_before(const trial& one) {
    return joined({one.is_cold ? restart : start, one.what->before});
}

texts steps_of(const trial& one) {
    texts all = steps_before(one);
    std::ranges::transform(one.failing, std::back_inserter(all), order);
    all.push_back("0 " + one.what->command);
    // What a start that failed has lost stays lost.
    return joined({all,
                   {"0 fail_nothing", "0 holdings"},
                   one.what->afterwards,
                   one.is_cold ? restart : texts{}});
}

void carry_out(model::prediction& now, const texts& lines) {
    for (const std::string& line : lines) {
        now.carry_out(model::parse_step(line));
    }
}

/// How often each call of the C library is made in a trial, by the model.
std::map<std::string, uint64_t> calls_in(const trial& one, model::prediction now) {
    carry_out(now, steps_before(one));
    const auto earlier = now.process(0).calls;
    std::ranges::for_each(one.failing, [&](const failure& each) { carry_out(now, {order(each)}); });
    carry_out(now, {"0 " + one.what->command});
    std::map<std::string, uint64_t> made = now.process(0).calls;
    for (const auto& [call, count] : earlier) {
        made[call] -= count;
    }
    return made;
}

/// The trial with one more failure in it: each that there can be.
std::vector<trial> with_one_more(const trial& one, const model::prediction& now) {
    std::vector<trial> all;
    for (const auto& [call, count] : calls_in(one, now)) {
        for (const std::string& error : errnos.at(call)) {
            for (uint64_t nth = 1; nth <= count; ++nth) {
                all.push_back(one);
                all.back().failing.push_back({call, error, nth});
            }
        }
    }
    return all;
}

bool uses_process(const std::string& line) {
    return line.front() == '0';
}

std::vector<trial> with_failures(const trial& sound, bool pairs, const model::prediction& now) {
    std::vector<trial> all = with_one_more(sound, now);
    if (pairs) {
        for (const trial& single : std::exchange(all, {})) {
            std::ranges::copy(with_one_more(single, now), std::back_inserter(all));
        }
    }
    return all;
}

/// With `base` carried out, one after the other.
std::vector<trial> later_trials(bool pairs, const model::prediction& now) {
    std::vector<trial> all;
    for (const scene& each : scenes) {
        for (const bool is_cold : {false, true}) {
            // What comes before may start it.
            if (!is_cold || std::ranges::none_of(each.before, uses_process)) {
                std::ranges::copy(with_failures({&each, is_cold, {}}, pairs, now),
                                  std::back_inserter(all));
            }
        }
    }
    return all;
}

// ---- What came of it -------------------------------------------------------------------------

void show(const model::verdict& result) {
    constexpr size_t steps_shown = 20;
    const auto& steps = result.played.steps;
    for (size_t i = steps.size() - std::min(steps.size(), steps_shown); i < steps.size(); ++i) {
        std::cout << model::shown(steps[i]) << '\n';
    }
    std::cout << result.found->text << '\n';
}

bool goes_as_predicted(const model::playground& where, const texts& lines) {
    model::script script{where, {}};
    std::ranges::transform(lines, std::back_inserter(script.steps), model::parse_step);
    const model::verdict result = model::play(where, model::steps_of(script));
    if (result.found) {
        show(result);
    }
    return !result.found;
}

/// From the one at `first` on each such one is played.
bool is_as_the_model_says(const std::string& world_name, bool pairs, size_t first, size_t every) {
    const model::playground where{world_name, "", 2};
    model::prediction now(where);
    const std::vector<trial> starts = with_failures({&first_start, true, {}}, pairs, now);
    carry_out(now, base);
    const std::vector<trial> later = later_trials(pairs, now);
    bool good = true;
    texts lines = base;
    size_t chosen = 0;
    for (size_t i = first; i < starts.size() + later.size(); i += every, ++chosen) {
        if (i < starts.size()) {
            good = goes_as_predicted(where, steps_of(starts[i])) && good;
        } else {
            std::ranges::copy(steps_of(later[i - starts.size()]), std::back_inserter(lines));
        }
    }
    good = goes_as_predicted(where, lines) && good;
    std::cout << world_name << ": " << chosen << " of " << starts.size() + later.size()
              << (pairs ? " pairs of failing calls" : " failing calls")
              << (good ? ", 0 differences" : ", with differences") << std::endl;
    return good;
}

} // namespace

int main(int count, char** words) {
    const texts arguments(words + 1, words + count);
    const size_t every = count > 3 ? std::strtoul(words[2], nullptr, 10) : 0;
    if (every == 0 || (arguments[0] != "singles" && arguments[0] != "pairs")) {
        std::cerr << "usage: failing_calls singles|pairs EVERY WORLD...\n";
        return 2;
    }
    bool good = true;
    for (size_t i = 2; i < arguments.size(); ++i) {
        // The same trials come in the same places in most worlds: others in each.
        good =
            is_as_the_model_says(arguments[i], arguments[0] == "pairs", i % every, every) && good;
    }
    return good ? 0 : 1;
}
