// damaged_bytes calls|check flips|values|pairs [EVERY]: in a sandbox, makes a few chunks and
// devices, damages the links, indices, flags, addresses and sizes that belong to them, in a copy of
// the area that only one process sees, and makes each call there, or tarvoctl's check. flips: each
// single bit; values: some telling values in each field; pairs: two of those at once. EVERY: only
// each such one of them. A call must come back with the lock free, or end its process by an
// assertion, or by the memory fault that is promised where devices have no free element; a check
// must come back. Both must stay in the area: what touches memory near it ends by a memory fault,
// too. Prints the figures; ends with 1 where one did otherwise, and with 2 where they could not be
// made.

#include "area.hpp"
#include "area/check.hpp"
#include "small_region.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <numeric>
#include <span>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* lock_path = "/var/lock/subsys/tarvo_lock";

// ---- The fields ------------------------------------------------------------------------------

struct field {
    std::string name;
    size_t offset;
    size_t bytes;
};

void add_link_fields(std::vector<field>& all, const std::string& owner, size_t element) {
    all.push_back({owner + ".next", element + area_offset::next, 4});
    all.push_back({owner + ".prev", element + area_offset::prev, 4});
    all.push_back({owner + ".allocated", element + area_offset::allocated, 1});
}

void add_ends(std::vector<field>& all, const std::string& owner, size_t head) {
    all.push_back({owner + "._head", head, 4});
    all.push_back({owner + "._tail", head + 4, 4});
    all.push_back({owner + "._free", head + 8, 4});
}

void add_chunk(std::vector<field>& all, int index) {
    const size_t chunk = area_offset::chunk(index);
    const std::string name = "chunk " + std::to_string(index);
    add_link_fields(all, name, chunk);
    all.push_back({name + ".pa", chunk + area_offset::pa, 8});
    all.push_back({name + ".size", chunk + area_offset::size, 4});
    add_ends(all, name + ".devs", chunk + area_offset::devs_head);
    for (size_t i = 0; i < 2; ++i) {
        const size_t reference = chunk + area_offset::devs + i * area_offset::ref_bytes;
        add_link_fields(all, name + ".devs", reference);
        all.push_back({name + ".devs.dev", reference + area_offset::dev, 4});
    }
}

/// Of the sentinels (0, 1), of three chunks, and of the next elements that are free.
std::vector<field> fields() {
    std::vector<field> all;
    add_ends(all, "chunks", area_offset::chunks_head);
    add_ends(all, "devices", area_offset::devices_head);
    for (const int index : {0, 1, 2, 3, 4, 5, 6}) {
        add_chunk(all, index);
    }
    for (const int index : {0, 1, 2}) {
        const size_t device = area_offset::device(index);
        const std::string name = "device " + std::to_string(index);
        add_link_fields(all, name, device);
        all.push_back({name + ".online", device + area_offset::online, 1});
    }
    return all;
}

/// What a field is to hold.
struct damage {
    field where;
    uint64_t value;
};

std::vector<damage> flips_of(const char* area) {
    std::vector<damage> all;
    for (const field& where : fields()) {
        uint64_t value = 0;
        std::memcpy(&value, area + where.offset, where.bytes);
        for (size_t bit = 0; bit < 8 * where.bytes; ++bit) {
            all.push_back({where, value ^ (uint64_t{1} << bit)});
        }
    }
    return all;
}

constexpr uint64_t none = ~uint64_t{0};

/// None, an element itself and its neighbours, capacities and what lies beyond.
std::vector<damage> telling_values() {
    std::vector<damage> all;
    for (const field& where : fields()) {
        for (const uint64_t value : std::initializer_list<uint64_t>{
                 none, 0, 1, 2, 3, 4, 5, 6, 255, 256, 16383, 16384, 0x80000000}) {
            all.push_back({where, value});
        }
    }
    return all;
}

// ---- The area, and nothing near it -----------------------------------------------------------

/// As far as an index of 32 bits leads in the list with the larger elements, in bytes.
size_t reach() {
    return (size_t{1} << 31) * (area_offset::chunk(1) - area_offset::chunk(0));
}

/// Whatever touches it ends by a memory fault. Null where it cannot be placed.
char* guard_at(char* start, int flags) {
    void* const guard =
        mmap(start, reach(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | flags, -1, 0);
    return guard == MAP_FAILED ? nullptr : static_cast<char*>(guard);
}

/// The kernel places a mapping right below those before it: the area lies between two guards. Null
/// where it does not.
char* guarded_area() {
    const auto page_bytes = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t area_bytes = (area_offset::content_end + page_bytes - 1) / page_bytes * page_bytes;
    char* const above = guard_at(nullptr, 0);
    char* const area = fill_region() ? mapped_area() : nullptr;
    const bool is_guarded = above != nullptr && area != nullptr && area + area_bytes == above &&
                            guard_at(area - reach(), MAP_FIXED_NOREPLACE) != nullptr;
    return is_guarded ? area : nullptr;
}

// ---- One call in a copy of the area ---------------------------------------------------------

constexpr int status_of_trouble = 99;
constexpr int status_of_kept_lock = 98;
constexpr unsigned seconds_for_a_call = 10;

/// Whether anybody who opens its file can have the lock.
bool lock_is_free() {
    const int file = open(lock_path, O_RDONLY | O_CLOEXEC);
    const bool is_free = flock(file, LOCK_EX | LOCK_NB) == 0;
    close(file);
    return is_free;
}

void check() {
    tarvoctl::check_area(*reinterpret_cast<const shared_area_t*>(mapped_area()));
}

constexpr std::array<call, 1> only_check{{{"check", check}}};

void make_in_copy(const call& one, char* area, const std::vector<damage>& damages) {
    if (!lock_is_free() || !detach_area(area)) {
        std::_Exit(status_of_trouble);
    }
    for (const damage& each : damages) {
        std::memcpy(area + each.where.offset, &each.value, each.where.bytes);
    }
    alarm(seconds_for_a_call);
    one.make();
    if (!lock_is_free()) {
        std::_Exit(status_of_kept_lock);
    }
}

/// How a process ended that made one call after the other, each in a copy of its own.
struct end_of_calls {
    size_t came_back;
    int status;
};

/// Seen by that process, too.
size_t& shared_counter() {
    static void* const place =
        mmap(nullptr, sizeof(size_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *static_cast<size_t*>(place);
}

end_of_calls make_calls(std::span<const call> made, char* area,
                        const std::vector<damage>& damages) {
    size_t& came_back = shared_counter();
    came_back = 0;
    const pid_t child = fork();
    if (child == 0) {
        for (const call& one : made) {
            make_in_copy(one, area, damages);
            ++came_back;
        }
        std::_Exit(0);
    }
    int status = 0;
    if (child == -1 || waitpid(child, &status, 0) != child) {
        std::cout << "no process for a call: " << std::strerror(errno) << '\n';
        std::exit(2);
    }
    return {came_back, status};
}

// ---- What came of it -------------------------------------------------------------------------

/// Of the list of devices, or of a chunk's.
bool is_exhausted_chain(const damage& one) {
    return one.where.name.ends_with("_free") && one.where.name != "chunks._free" &&
           one.value == none;
}

std::string shown(int status) {
    if (WIFSIGNALED(status)) {
        return WTERMSIG(status) == SIGALRM ? "hangs" : strsignal(WTERMSIG(status));
    }
    return WEXITSTATUS(status) == status_of_kept_lock
               ? "keeps the lock"
               : "status " + std::to_string(WEXITSTATUS(status));
}

class figures {
  public:
    explicit figures(std::span<const call> made) : _made(made) {}

    /// Those after one that does not come back are made in another process.
    void make_each_call(char* area, const std::vector<damage>& damages) {
        ++_cases;
        _calls += _made.size();
        for (size_t next = 0; next < _made.size(); ++next) {
            const auto [came_back, status] = make_calls(_made.subspan(next), area, damages);
            next += came_back;
            if (next < _made.size()) {
                add_end(status, _made[next], damages);
            }
        }
    }

    bool report(std::string_view kind) const {
        for (const std::string& each : _wrong) {
            std::cout << each << '\n';
        }
        std::cout << _cases << ' ' << kind << ", " << _calls
                  << " calls: " << _calls - _assertions - _promised - _wrong.size()
                  << " came back, " << _assertions << " ended by an assertion, " << _promised
                  << " by a promised fault, " << _wrong.size() << " by anything else\n";
        return _wrong.empty();
    }

  private:
    void add_end(int status, const call& one, const std::vector<damage>& damages) {
        const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        const bool may_end = one.make != check;
        if (may_end && signal == SIGABRT) {
            ++_assertions;
        } else if (may_end && signal == SIGSEGV &&
                   std::ranges::any_of(damages, is_exhausted_chain)) {
            ++_promised;
        } else {
            std::string text;
            for (const damage& each : damages) {
                text += each.where.name + " = " + std::to_string(each.value) + ", ";
            }
            _wrong.push_back(text + std::string(one.name) + ": " + shown(status));
        }
    }

    std::span<const call> _made;
    size_t _cases = 0;
    size_t _calls = 0;
    size_t _assertions = 0;
    size_t _promised = 0;
    std::vector<std::string> _wrong;
};

void make_singles(figures& all, char* area, const std::vector<damage>& singles, size_t every) {
    for (size_t i = 0; i < singles.size(); i += every) {
        all.make_each_call(area, {singles[i]});
    }
}

/// Of values in two different fields.
void make_pairs(figures& all, char* area, const std::vector<damage>& singles, size_t every) {
    for (size_t i = 0; i < singles.size() * singles.size(); i += every) {
        const damage& first = singles[i % singles.size()];
        const damage& second = singles[i / singles.size()];
        if (first.where.offset < second.where.offset) {
            all.make_each_call(area, {first, second});
        }
    }
}

} // namespace

int main(int count, char** words) {
    const std::string_view made = count > 1 ? words[1] : "";
    const std::string_view kind = count > 2 ? words[2] : "";
    const size_t every = count > 3 ? std::strtoul(words[3], nullptr, 10) : 1;
    const bool is_known = (made == "calls" || made == "check") &&
                          (kind == "flips" || kind == "values" || kind == "pairs");
    // The library reports most of these there.
    if (!is_known || std::freopen("/dev/null", "w", stderr) == nullptr || every == 0) {
        return 2;
    }
    char* const area = guarded_area();
    if (area == nullptr) {
        std::cout << "the region could not be filled, or its area could not be guarded\n";
        return 2;
    }
    const std::vector<damage> singles = kind == "flips" ? flips_of(area) : telling_values();
    // With a common divisor some damages would never come first in a pair.
    if (std::gcd(every, singles.size()) != 1) {
        std::cout << "EVERY, " << every << ", must have no divisor in common with the number of "
                  << "damages, " << singles.size() << '\n';
        return 2;
    }
    figures all(made == "check" ? only_check : calls());
    (kind == "pairs" ? make_pairs : make_singles)(all, area, singles, every);
    return all.report(kind) ? 0 : 1;
}
