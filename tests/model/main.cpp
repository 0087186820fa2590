// tarvo-model: plays random sequences of calls on the library, by several processes, with a kernel
// driver that refuses, and compares all that can be seen with what a plain model of the library
// predicts, after every step. A sequence that fails is shortened and printed so that --replay plays
// it again.

#include "comparison.hpp"
#include "generator.hpp"
#include "shrink.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <iterator>

namespace {

struct options {
    uint64_t first_seed = 1;
    uint64_t seeds = 1;
    size_t steps = 300;
    std::string world_name;
    int processes = 0;
    std::string replayed;
    int tries = 300;
    bool is_verbose = false;
};

/// Steps of a seed, as many as wanted.
model::step_source steps_of_seed(uint64_t seed, size_t count) {
    return [maker = model::generator(seed),
            left = count](const model::prediction& now) mutable -> std::optional<model::step> {
        if (left == 0) {
            return std::nullopt;
        }
        left--;
        return maker.next(now);
    };
}

void print(const model::verdict& failed) {
    std::cout << "# Play this again by: tarvo-model --replay FILE\n"
              << model::shown(failed.played) << "# Step " << failed.found.value().step + 1 << ": ";
    for (const char c : failed.found.value().text) {
        std::cout << c << (c == '\n' ? "# " : "");
    }
    std::cout << std::endl;
}

void shrink_and_print(const model::verdict& failed, int tries) {
    model::verdict shortest = failed;
    const auto fails = [&shortest](const model::script& tried) {
        model::verdict again = model::play(tried.where, model::steps_of(tried));
        const bool failed_again = again.found.has_value();
        if (failed_again) {
            shortest = std::move(again);
        }
        return failed_again;
    };
    std::cout << "shortening " << failed.played.steps.size() << " steps; the difference was:\n"
              << failed.found.value().text << std::endl;
    model::shrink(failed.played, fails, tries);
    print(shortest);
}

bool replay(const options& wanted) {
    const model::script script = model::read_script(wanted.replayed);
    const model::verdict result = model::play(script.where, model::steps_of(script));
    if (result.found) {
        print(result);
    } else {
        std::cout << wanted.replayed << ": no difference in " << result.played.steps.size()
                  << " steps" << std::endl;
    }
    return !result.found;
}

bool play_seed(const options& wanted, const std::string& world_name, uint64_t seed) {
    const model::playground where = model::choose_playground(world_name, seed, wanted.processes);
    const model::verdict result = model::play(where, steps_of_seed(seed, wanted.steps));
    if (wanted.is_verbose) {
        std::cout << model::shown(result.played);
    }
    if (result.found) {
        std::cout << "seed " << seed << " in world " << world_name << " fails" << std::endl;
        shrink_and_print(result, wanted.tries);
    }
    return !result.found;
}

bool play_seeds(const options& wanted) {
    bool good = true;
    for (const world& known : all_worlds()) {
        if (!wanted.world_name.empty() && wanted.world_name != known.name) {
            continue;
        }
        bool alike = true;
        for (uint64_t i = 0; alike && i < wanted.seeds; i++) {
            alike = play_seed(wanted, known.name, wanted.first_seed + i);
        }
        std::cout << known.name << ": " << (alike ? "no difference" : "a difference") << std::endl;
        good = good && alike;
    }
    return good;
}

std::vector<std::string> names_of_worlds() {
    std::vector<std::string> names;
    std::ranges::transform(all_worlds(), std::back_inserter(names), &world::name);
    return names;
}

void describe(CLI::App& app, options& wanted) {
    app.add_option("--seed", wanted.first_seed, "first seed")->capture_default_str();
    app.add_option("--seeds", wanted.seeds, "how many seeds")->capture_default_str();
    app.add_option("--steps", wanted.steps, "steps of each seed")->capture_default_str();
    app.add_option("--world", wanted.world_name, "only this world; all of them where left out")
        ->check(CLI::IsMember(names_of_worlds()));
    app.add_option("--processes", wanted.processes,
                   "clients side by side; 1 to 4, as the seed says, where left out")
        ->check(CLI::Range(1, 64));
    app.add_option("--replay", wanted.replayed, "play the steps in this file instead")
        ->check(CLI::ExistingFile);
    app.add_option("--tries", wanted.tries, "how often a shorter sequence is tried")
        ->capture_default_str();
    app.add_flag("--verbose", wanted.is_verbose, "print every sequence that was played");
}

int run(int argc, char** argv) {
    options wanted;
    CLI::App app("Compares the library with a model of it, step by step.", "tarvo-model");
    describe(app, wanted);
    CLI11_PARSE(app, argc, argv);
    // Trace records are not predicted.
    unsetenv("ZUL_TRACE");
    const bool good = wanted.replayed.empty() ? play_seeds(wanted) : replay(wanted);
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& wrong) {
        std::fprintf(stderr, "tarvo-model: %s\n", wrong.what());
        return 2;
    }
}
