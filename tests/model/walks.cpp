// tarvo-walks FIRST COUNT: from seed FIRST on, so many random sequences of calls, between which
// records are damaged behind the back of processes that know their order. Each is played on the
// library and on its plain build (bench/plain), and everything that can be seen is compared.

#include "damage.hpp"
#include "observed.hpp"
#include "sandbox.hpp"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>

namespace {

constexpr int most_chunks = 90;
constexpr uint32_t first_dma = 0x80000000;

/// What a program answers to a command; or how it ended, and its standard error.
class player {
  public:
    explicit player(process started) : _process(std::move(started)) {}

    bool has_ended() const { return _has_ended; }

    void send(const std::string& command) { _process.write_line(command); }

    std::string receive() {
        const std::optional<std::string> reply = _process.read_line();
        _has_ended = !reply;
        return (reply ? *reply : shown(_process.wait())) + new_errors();
    }

  private:
    std::string new_errors() {
        const std::string all = without_signatures(without_lines(_process.error_text()));
        const std::string added = all.substr(std::min(_reported, all.size()));
        _reported = all.size();
        return added.empty() ? "" : "\n" + added;
    }

    process _process;
    size_t _reported = 0;
    bool _has_ended = false;
};

/// A machine on which one build of the library runs. Players are called by name and start when they
/// are first asked, and again after they have ended.
class side {
  public:
    explicit side(std::vector<std::string> words) : _words(std::move(words)) {}

    void begin() {
        _players.clear();
        _area.reset();
        std::filesystem::remove(_machine.shared_area());
    }

    void send(const std::string& who, const std::string& command) {
        const auto found = _players.find(who);
        if (found != _players.end() && found->second.has_ended()) {
            _players.erase(found);
        }
        if (!_players.contains(who)) {
            _players.emplace(who, player(_machine.start_process(_words)));
        }
        _players.at(who).send(command);
    }

    std::string receive(const std::string& who) { return _players.at(who).receive(); }

    const area_file& area() {
        if (!_area) {
            _area.emplace(_machine.shared_area(), area_file::access::write);
        }
        return *_area;
    }

  private:
    sandbox _machine{low};
    std::vector<std::string> _words;
    std::map<std::string, player> _players;
    std::optional<area_file> _area;
};

/// Both, asked the same.
class pair_of_sides {
  public:
    void begin() {
        _story.clear();
        _library.begin();
        _plain.begin();
    }

    std::string ask(const std::string& who, const std::string& command) {
        _story += who + ": " + command + "\n";
        _library.send(who, command);
        _plain.send(who, command);
        const std::string reply = received(_library, who);
        const std::string expected = received(_plain, who);
        // Where something is mapped is up to the system.
        const bool maps = reply.starts_with("0x") && expected.starts_with("0x");
        if (command.starts_with("map ") && maps) {
            compare_mappings(who, reply, expected);
        } else if (reply != expected) {
            complain("plain: " + expected + "\nlibrary: " + reply);
        }
        return reply;
    }

    void make(const model::damage& one) {
        _story += one.shown() + "\n";
        one.make(_library.area().writer());
        one.make(_plain.area().writer());
    }

    area_view area() { return _library.area().view(); }

    void compare_areas() {
        const auto bytes = _library.area().view().bytes();
        const auto expected = _plain.area().view().bytes();
        const auto [difference, other] = std::ranges::mismatch(bytes, expected);
        if (difference != bytes.end()) {
            complain("the areas differ at " + std::to_string(difference - bytes.begin()));
        }
    }

  private:
    void compare_mappings(const std::string& who, const std::string& address,
                          const std::string& other_address) {
        _library.send(who, "mapping " + address);
        _plain.send(who, "mapping " + other_address);
        const std::string mapping = received(_library, who);
        const std::string expected = received(_plain, who);
        if (mapping != expected) {
            complain("plain: " + expected + "\nlibrary: " + mapping);
        }
    }

    std::string received(side& one, const std::string& who) {
        try {
            return one.receive(who);
        } catch (const std::exception& wrong) {
            complain((&one == &_plain ? "plain: " : "library: ") + std::string(wrong.what()));
        }
    }

    [[noreturn]] void complain(const std::string& what) const {
        throw std::runtime_error(_story + what);
    }

    side _library{{TARVO_CLIENT}};
    side _plain{{"env", "LD_LIBRARY_PATH=" TARVO_PLAIN_FOLDER, TARVO_CLIENT}};
    std::string _story;
};

class sequence {
  public:
    sequence(pair_of_sides& sides, uint32_t seed) : _sides(sides), _random(seed) {}

    void play() {
        _sides.begin();
        fill();
        for (int walk = 0; walk < 3; walk++) {
            _sides.ask("veteran", search());
        }
        for (int round = one_of(6); round >= 0; round--) {
            if (one_of(3) == 0) {
                _sides.ask("author", change());
            }
            for (int damages = one_of(3); damages >= 0; damages--) {
                _sides.make(model::choose_damage(_random, _sides.area(), _chunks + 2));
            }
            for (int calls = one_of(4); calls >= 0; calls--) {
                _sides.ask(one_of(8) == 0 ? "newcomer" : "veteran", any_call());
            }
            if (one_of(8) == 0) {
                list();
            }
        }
        _sides.compare_areas();
    }

  private:
    int one_of(int count) { return std::uniform_int_distribution(0, count - 1)(_random); }

    std::string name() { return "chunk_" + std::to_string(one_of(_chunks + 3)); }

    std::string change() { return one_of(2) == 0 ? "free " + name() : allocation(name()); }

    std::string allocation(const std::string& name) {
        return "alloc " + name + " " + std::to_string(4096 * (1 + one_of(2))) + " me";
    }

    std::string search() {
        switch (one_of(3)) {
        case 0:
            return "find " + std::to_string(first_dma + 2048U * unsigned(one_of(400)));
        case 1:
            return "map " + name() + " 1 0 0";
        default:
            return allocation(name());
        }
    }

    std::string any_call() {
        switch (one_of(11)) {
        case 0:
            return "register 0 " + std::to_string(one_of(4)) + " 0";
        case 1:
            return "unregister 0 " + std::to_string(one_of(4)) + " 0";
        case 2:
            return "unmap " + name() + " 0x1000 0";
        case 3:
        case 4:
            return change();
        default:
            return search();
        }
    }

    /// All lines, unless the program ends before.
    void list() {
        if (_sides.ask("veteran", "dump_begin") != "true") {
            return;
        }
        for (const std::string command : {"dump_next 256", "dump_next_device 256"}) {
            std::string reply;
            do {
                reply = _sides.ask("veteran", command);
            } while (reply.starts_with('"'));
            if (reply != "end") {
                return;
            }
        }
        _sides.ask("veteran", "dump_end");
    }

    /// A list of some length, whose elements do not lie in its order.
    void fill() {
        for (int chunk = 0; chunk < _chunks; chunk++) {
            _sides.ask("author", "alloc chunk_" + std::to_string(chunk) + " 4096 me");
        }
        for (int device = one_of(3); device > 0; device--) {
            _sides.ask("author", "register 0 " + std::to_string(device) + " 0");
        }
        for (int changes = one_of(2 * _chunks); changes > 0; changes--) {
            _sides.ask("author", change());
        }
    }

    pair_of_sides& _sides;
    std::mt19937 _random;
    int _chunks = 2 + one_of(most_chunks);
};

int run(int argc, char** argv) {
    uint32_t first = 1;
    uint32_t count = 1500;
    CLI::App app("Compares the library with its plain build on damaged lists.", "tarvo-walks");
    app.add_option("FIRST", first, "first seed")->capture_default_str();
    app.add_option("COUNT", count, "how many seeds")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    unsetenv("ZUL_TRACE");
    pair_of_sides sides;
    for (uint32_t seed = first; seed - first < count; seed++) {
        try {
            sequence(sides, seed).play();
        } catch (const std::exception& wrong) {
            std::cout << "seed " << seed << ":\n" << wrong.what() << std::endl;
            return EXIT_FAILURE;
        }
    }
    std::cout << count << " sequences: no difference" << std::endl;
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& wrong) {
        std::fprintf(stderr, "tarvo-walks: %s\n", wrong.what());
        return 2;
    }
}
