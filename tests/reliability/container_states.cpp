// container_states CAPACITY: makes every state that a list of that capacity, or of a smaller one,
// can get into, and in each of them every call that a caller can make. Each result is compared with
// a list made of vectors, and each moment between two stores of a call is a death: what others then
// find must be a sound list. Prints the figures; ends with 1 where something differs.
//
// A state is the bytes of the list. Elements are on it, on the free chain, or taken off the chain
// and not linked yet.

#include "ArrayBackedList.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace {

/// Called before each store to a link or flag; the ends are seen with the next one.
std::function<void()> before_store;

template <typename Number>
struct watched {
    Number value;
    watched& operator=(Number stored) {
        if (before_store) {
            before_store();
        }
        value = stored;
        return *this;
    }
    operator Number() const { return value; }
};

struct element {
    watched<int32_t> next;
    watched<int32_t> prev;
    watched<uint8_t> allocated;
};
static_assert(sizeof(element) == 12);

/// What a list shall hold: elements by number.
struct contents {
    std::vector<int> listed; ///< in order
    std::vector<int> chain;  ///< first out first
    std::vector<int> taken;

    bool operator==(const contents&) const = default;
};

std::vector<int> without(std::vector<int> all, int one) {
    std::erase(all, one);
    return all;
}

template <int MAX>
class enumeration {
    using list = ArrayBackedList<element, MAX>;
    using bytes = std::string;

  public:
    bool run() {
        list first{};
        for (int i = 0; i < MAX; ++i) {
            first._arr[i].next.value = i + 1 < MAX ? i + 1 : -1;
        }
        first._head = first._tail = list::none;
        first._free = 0;
        contents empty;
        for (int i = 0; i < MAX; ++i) {
            empty.chain.push_back(i);
        }
        enter(first, empty);
        for (size_t at = 0; at < _found.size(); ++at) {
            leave_by_every_call(at);
        }
        std::cout << "capacity " << MAX << ": " << _found.size() << " states, " << _transitions
                  << " transitions, " << _differences << " differences; " << _deaths
                  << " deaths between two stores: after " << _lost
                  << " the element in hand is on neither list nor chain, after " << _goes_along
                  << " it goes with a neighbour, after " << _harmed
                  << " another one is lost, met twice or given away\n";
        return _differences == 0 && _harmed == 0;
    }

  private:
    struct state {
        bytes image;
        contents model;
    };

    static bytes image_of(const list& source) {
        return {reinterpret_cast<const char*>(&source), sizeof source};
    }
    static list list_of(const bytes& image) {
        list made;
        std::memcpy(static_cast<void*>(&made), image.data(), sizeof made);
        return made;
    }

    void enter(const list& reached, const contents& model) {
        const auto [at, is_new] = _known.emplace(image_of(reached), _found.size());
        if (is_new) {
            _found.push_back({at->first, model});
        } else {
            _differences += _found[at->second].model == model ? 0 : 1;
        }
    }

    void leave_by_every_call(size_t at) {
        const contents model = _found[at].model;
        if (!model.chain.empty()) {
            contents after = model;
            after.taken.insert(std::ranges::upper_bound(after.taken, model.chain[0]),
                               model.chain[0]);
            after.chain.erase(after.chain.begin());
            step(at, model.chain[0], after, [](list& in, int /*e*/) { in.alloc(); });
        }
        for (const int e : model.taken) {
            link_everywhere(at, e);
        }
        for (const int e : model.listed) {
            contents after = model;
            after.listed = without(after.listed, e);
            after.chain.insert(after.chain.begin(), e);
            step(at, e, after, [](list& in, int i) { in.erase(in.arr_elem(i)); });
        }
    }

    void link_everywhere(size_t at, int e) {
        const contents model = _found[at].model;
        contents after = model;
        after.taken = without(after.taken, e);
        contents appended = after;
        appended.listed.push_back(e);
        step(at, e, appended, [](list& in, int i) { in.append(in.arr_elem(i)); });
        for (size_t place = 0; place < model.listed.size(); ++place) {
            contents inserted = after;
            inserted.listed.insert(inserted.listed.begin() + static_cast<long>(place) + 1, e);
            const int left = model.listed[place];
            step(at, e, inserted,
                 [left](list& in, int i) { in.insert_after(in.arr_elem(left), in.arr_elem(i)); });
        }
        contents freed = after;
        freed.chain.insert(freed.chain.begin(), e);
        step(at, e, freed, [](list& in, int i) { in.free(in.arr_elem(i)); });
    }

    /// One call, with a look between all its stores.
    template <typename Call>
    void step(size_t at, int in_hand, const contents& after, Call call) {
        ++_transitions;
        const contents before = _found[at].model;
        list working = list_of(_found[at].image);
        bytes last = _found[at].image;
        const auto look = [&] {
            const bytes now = image_of(working);
            if (now != last) {
                last = now;
                look_after_death(now, before, after, in_hand);
            }
        };
        before_store = look;
        call(working, in_hand);
        before_store = nullptr;
        if (!holds(working, after)) {
            ++_differences;
        }
        enter(working, after);
    }

    static bool contains(const std::vector<int>& all, int one) {
        return std::ranges::find(all, one) != all.end();
    }

    /// Forwards as callers walk; an empty answer with `sound` unset where that is no list.
    static std::vector<int> walk(list& in, bool& sound) {
        std::vector<int> seen;
        sound = in._head >= -1 && in._head < MAX && (in._head == -1) == (in._tail == -1);
        for (int at = sound ? in._head : -1; at != -1;) {
            if (at < 0 || at >= MAX || contains(seen, at) || in._arr[at].allocated == 0) {
                sound = false;
                break;
            }
            seen.push_back(at);
            at = at == in._tail ? -1 : in._arr[at].next.value;
        }
        sound = sound && (seen.empty() || seen.back() == in._tail);
        return seen;
    }

    static std::vector<int> chain_of(const list& in, bool& sound) {
        std::vector<int> seen;
        for (int at = in._free; at != -1; at = in._arr[at].next) {
            if (at < 0 || at >= MAX || contains(seen, at) || in._arr[at].allocated != 0) {
                sound = false;
                break;
            }
            seen.push_back(at);
        }
        return seen;
    }

    /// Whether the list is that, also backwards and all around.
    static bool holds(list& in, const contents& model) {
        bool sound = true;
        if (walk(in, sound) != model.listed || !sound || chain_of(in, sound) != model.chain ||
            !sound) {
            return false;
        }
        const size_t count = model.listed.size();
        for (size_t i = 0; i < count; ++i) {
            const element& here = in._arr[model.listed[i]];
            if (here.next != model.listed[(i + 1) % count] ||
                here.prev != model.listed[(i + count - 1) % count]) {
                return false;
            }
        }
        return std::ranges::all_of(model.taken, [&](int e) { return in._arr[e].allocated == 1; });
    }

    /// What others find and do after a death: the list is that of before or after, no element is
    /// on the list and the chain at once, and taking any other element off leaves all others.
    void look_after_death(const bytes& image, const contents& before, const contents& after,
                          int in_hand) {
        const auto watching = std::move(before_store);
        before_store = nullptr;
        ++_deaths;
        list left = list_of(image);
        bool sound = true;
        const std::vector<int> listed = walk(left, sound);
        const std::vector<int> chain = chain_of(left, sound);
        const bool known = listed == before.listed || listed == after.listed;
        const bool apart = std::ranges::none_of(chain, [&](int e) { return contains(listed, e); });
        bool good = sound && known && apart;
        bool goes_along = false;
        for (const int e : listed) {
            const std::vector<int> left_over = after_erasing(image, e);
            const std::vector<int> expected = without(listed, e);
            goes_along = goes_along || left_over != expected;
            good = good && without(left_over, in_hand) == without(expected, in_hand) &&
                   (chain.empty() || one_more_enters(image, listed, e, in_hand));
        }
        const bool lost = !contains(listed, in_hand) && !contains(chain, in_hand);
        _lost += lost ? 1U : 0U;
        _harmed += good ? 0U : 1U;
        _goes_along += good && goes_along ? 1U : 0U;
        before_store = watching;
    }

    /// What a walk finds then; nothing where that is no list.
    static std::vector<int> after_erasing(const bytes& image, int erased) {
        list others = list_of(image);
        others.erase(others.arr_elem(erased));
        bool sound = true;
        std::vector<int> found = walk(others, sound);
        return sound ? found : std::vector<int>{};
    }

    /// Where one more is put after one that others can see, they see it there.
    static bool one_more_enters(const bytes& image, const std::vector<int>& listed, int left,
                                int in_hand) {
        list others = list_of(image);
        element* const entered = others.alloc();
        others.insert_after(others.arr_elem(left), entered);
        bool sound = true;
        const std::vector<int> found = walk(others, sound);
        std::vector<int> expected = listed;
        expected.insert(std::ranges::find(expected, left) + 1, others.index(entered));
        return sound && without(found, in_hand) == without(expected, in_hand);
    }

    std::vector<state> _found;
    std::map<bytes, size_t> _known;
    size_t _transitions = 0;
    size_t _differences = 0;
    size_t _deaths = 0;
    size_t _lost = 0;
    size_t _goes_along = 0;
    size_t _harmed = 0;
};

template <int... CAPACITIES>
bool run_up_to(int largest, std::integer_sequence<int, CAPACITIES...> /*zero based*/) {
    bool good = true;
    ((CAPACITIES < largest ? void(good &= enumeration<CAPACITIES + 1>().run()) : void()), ...);
    return good;
}

} // namespace

int main(int count, char** words) {
    constexpr int most = 6;
    const int largest = count == 2 ? std::atoi(words[1]) : 0;
    if (largest < 1 || largest > most) {
        std::cerr << "usage: container_states CAPACITY, from 1 to " << most << '\n';
        return 2;
    }
    return run_up_to(largest, std::make_integer_sequence<int, most>()) ? 0 : 1;
}
