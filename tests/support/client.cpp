#include "client.hpp"

#include "joined.hpp"
#include "lock_table.hpp"
#include "pattern.hpp"

#include <algorithm>
#include <csignal>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

void client::send(std::string_view command) {
    _process.write_line(command);
}

std::string client::reply() {
    const auto line = _process.read_line();
    if (!line) {
        throw std::runtime_error("the client ended by " + shown(_process.wait()) +
                                 "; its standard error:\n" + error_text());
    }
    if (line->starts_with("error: ")) {
        throw std::runtime_error("the client does not understand: " + *line);
    }
    return *line;
}

std::string client::call(std::string_view command) {
    send(command);
    return reply();
}

/// A result in decimal or hexadecimal, or null, which is 0.
int64_t client::number(const std::string& command) {
    const std::string text = call(command);
    return text == "null"
               ? 0
               : static_cast<int64_t>(text.starts_with("-")
                                          ? std::stoll(text)
                                          : static_cast<long long>(std::stoull(text, nullptr, 0)));
}

uint32_t client::alloc(std::string_view name, uint64_t size, std::string_view creator) {
    return static_cast<uint32_t>(
        number(joined("alloc ", quoted(name), " ", size, " ", quoted(creator))));
}

uint32_t client::fill(const std::string& prefix, int count) {
    constexpr int most_unread = 64; // replies: the pipe has room for them
    std::string last = "0";
    int asked = 0;
    for (int answered = 0; answered < count; ++answered) {
        for (; asked < std::min(count, answered + most_unread); ++asked) {
            send("alloc " + prefix + std::to_string(asked) + " 4096 test");
        }
        last = reply();
    }
    return static_cast<uint32_t>(std::stoull(last, nullptr, 0));
}

int client::free(std::string_view name) {
    return static_cast<int>(number("free " + quoted(name)));
}

uint64_t client::map(std::string_view name, bool writable, uint64_t offset, uint64_t size) {
    return static_cast<uint64_t>(
        number(joined("map ", quoted(name), writable ? " 1 " : " 0 ", offset, " ", size)));
}

int client::unmap(std::string_view name, uint64_t address, uint64_t size) {
    return static_cast<int>(number(joined("unmap ", quoted(name), " ", address, " ", size)));
}

found_chunk client::find(uint32_t dma) {
    const std::string text = call(joined("find ", dma));
    const size_t blank = text.rfind(' ');
    found_chunk found{std::nullopt,
                      static_cast<uint32_t>(std::stoul(text.substr(blank + 1), nullptr, 0))};
    if (text.front() == '"') {
        found.name = text.substr(1, blank - 2);
    }
    return found;
}

uint64_t client::to_pa(uint32_t dma) {
    return static_cast<uint64_t>(number(joined("to_pa ", dma)));
}

uint32_t client::to_dma(uint64_t pa) {
    return static_cast<uint32_t>(number(joined("to_dma ", pa)));
}

dma_limits client::limits() {
    std::istringstream fields(call("limits"));
    dma_limits limits{};
    std::string start;
    std::string end;
    fields >> limits.result >> start >> end;
    limits.start = static_cast<uint32_t>(std::stoul(start, nullptr, 0));
    limits.end = static_cast<uint32_t>(std::stoul(end, nullptr, 0));
    return limits;
}

int client::register_device(uint32_t domain, uint32_t bus, uint32_t devfn) {
    return static_cast<int>(number(joined("register ", domain, " ", bus, " ", devfn)));
}

int client::unregister_device(uint32_t domain, uint32_t bus, uint32_t devfn) {
    return static_cast<int>(number(joined("unregister ", domain, " ", bus, " ", devfn)));
}

std::vector<std::string> client::dump() {
    std::vector<std::string> lines;
    if (call("dump_begin") != "true") {
        throw std::runtime_error("no listing: " + error_text());
    }
    for (const char* next : {"dump_next 256", "dump_next_device 256"}) {
        for (std::string line = call(next); line != "end"; line = call(next)) {
            lines.push_back(line.substr(1, line.size() - 2));
        }
    }
    call("dump_end");
    return lines;
}

bool client::has_replied(std::chrono::milliseconds time) {
    return _process.has_line(time);
}

void client::wait_until_it_waits_for_a_lock(std::optional<pid_t> child) {
    bool waits = false;
    eventually([&] {
        waits = waits_for_a_lock(child.value_or(_pid));
        return waits || has_replied();
    });
    if (!waits) {
        throw std::runtime_error("the client does not wait for a lock");
    }
}

ending client::dies(std::string_view command) {
    send(command);
    if (const auto line = _process.read_line()) {
        throw std::runtime_error("the client should have died, and replied: " + *line);
    }
    return _process.wait();
}

ending client::kill(int signal) {
    ::kill(pid(), signal);
    return _process.wait();
}

ending client::finish() {
    _process.close_input();
    return _process.wait();
}

std::vector<std::string> client::descriptors() {
    std::istringstream words(call("fds"));
    return {std::istream_iterator<std::string>(words), {}};
}

pid_t client::pid() {
    // Not the pid of the process: the sandbox's tool stands between.
    if (_pid == 0) {
        _pid = static_cast<pid_t>(number("pid"));
    }
    return _pid;
}

std::string client::new_text() {
    const std::string all = error_text();
    return without_signatures(without_lines(all.substr(std::exchange(_reported, all.size()))));
}

std::vector<std::string> added(const std::vector<std::string>& before,
                               const std::vector<std::string>& now) {
    std::vector<std::string> fresh;
    std::copy_if(now.begin(), now.end(), std::back_inserter(fresh), [&](const std::string& one) {
        return std::find(before.begin(), before.end(), one) == before.end();
    });
    return fresh;
}

std::string without_lines(std::string_view text) {
    static const pattern line_number("(^|\\s)tarvo:[0-9]+(?=[ :])");
    // clang++ spells pointers in the signature of an assertion otherwise: "void *f(const char *)".
    static const pattern result(" \\*(?=\\w[^\\n]*: Assertion `)");
    static const pattern argument(" \\*(?=\\W[^\\n]*: Assertion `)");
    const std::string numbered = line_number.replaced_in(text, "$1tarvo:LINE");
    return argument.replaced_in(result.replaced_in(numbered, "* "), "*");
}

std::string without_signatures(std::string_view text) {
    static const pattern signature("(ArrayBackedList\\.hpp:[0-9]+: ).*(?=: Assertion `)");
    return signature.replaced_in(text, "$1SIGNATURE");
}
