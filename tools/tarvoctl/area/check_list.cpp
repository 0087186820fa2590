#include "check_list.hpp"

#include "list_walk.hpp"

#include <utility>

namespace tarvoctl {

namespace {

/// The check of one list.
class list_check {
  public:
    list_check(const list_links& links, report& found)
        : _links(links), _found(found), _seen(static_cast<size_t>(links.capacity), unseen) {}

    list_members check() {
        if (ends_are_usable()) {
            check_listed();
        }
        check_free_chain();
        for (int element = 0; element < _links.capacity; ++element) {
            check_flag(element);
            check_unseen(element);
        }
        for (const int element : _members.free) {
            check_free(element);
        }
        return std::move(_members);
    }

  private:
    enum sighting : uint8_t { unseen, listed, free };

    sighting& seen(int element) { return _seen[static_cast<size_t>(element)]; }

    bool is_an_end(int32_t end) const { return end == -1 || _links.has(end); }

    /// Whether there is a list that can be walked.
    bool ends_are_usable() {
        const auto [head, tail] = std::pair(_links.head, _links.tail);
        if (!is_an_end(head) || !is_an_end(tail)) {
            _found.add(rules::end_out_of_range, _links.list, head, tail, _links.capacity - 1);
        } else if ((head == -1) != (tail == -1)) {
            _found.add(rules::one_end_only, _links.list, head, tail);
        }
        return _links.has(head);
    }

    void check_listed() {
        int previous = -1;
        const auto [why, element] =
            walk(_links, _links.head, &list_links::next, [&](int listed_one) {
                if (previous != -1) {
                    check_back_link(previous, listed_one);
                }
                previous = listed_one;
                enter_listed(listed_one);
                return listed_one != _links.tail;
            });
        switch (why) {
        case walk_end::reason::stopped:
            check_circle();
            break;
        case walk_end::reason::out_of_range:
            _found.add(rules::link_out_of_range, _links.at(previous), element, _links.tail);
            break;
        case walk_end::reason::repeated:
            _found.add(rules::cycle, _links.at(element), _members.listed.size(), _links.tail);
        }
    }

    void enter_listed(int element) {
        seen(element) = listed;
        _members.listed.push_back(element);
        if (_links.flag(element) == 0) {
            _found.add(rules::listed_not_allocated, _links.at(element));
        }
    }

    void check_back_link(int element, int following) {
        if (_links.prev(following) != element) {
            _found.add(rules::back_link_wrong, _links.at(following), _links.prev(following),
                       element);
        }
    }

    void check_circle() {
        if (_links.next(_links.tail) != _links.head) {
            _found.add(rules::circle_open, _links.at(_links.tail), "next of the tail",
                       _links.next(_links.tail), "head", _links.head);
        }
        if (_links.prev(_links.head) != _links.tail) {
            _found.add(rules::circle_open, _links.at(_links.head), "prev of the head",
                       _links.prev(_links.head), "tail", _links.tail);
        }
    }

    void check_free_chain() {
        place where = _links.list;
        const auto [why, element] = walk(_links, _links.free, &list_links::next, [&](int free_one) {
            where = _links.at(free_one);
            return enter_free(free_one);
        });
        if (why == walk_end::reason::repeated) {
            _found.add(rules::free_cycle, _links.at(element), _members.free.size());
        } else if (why == walk_end::reason::out_of_range && element != -1) {
            _found.add(rules::free_link_out_of_range, where, element);
        }
    }

    bool enter_free(int element) {
        if (seen(element) == listed) {
            _found.add(rules::free_and_listed, _links.at(element));
            return false;
        }
        seen(element) = free;
        _members.free.push_back(element);
        if (_links.flag(element) != 0) {
            _found.add(rules::free_but_allocated, _links.at(element));
        }
        return true;
    }

    void check_flag(int element) {
        if (_links.flag(element) > 1) {
            _found.add(rules::flag_value, _links.at(element), "allocated", _links.flag(element));
        }
    }

    void check_unseen(int element) {
        if (seen(element) != unseen) {
            return;
        }
        if (_links.flag(element) != 0) {
            _found.add(rules::allocated_on_no_list, _links.at(element));
        } else {
            _found.add(rules::free_on_no_chain, _links.at(element));
        }
    }

    void check_free(int element) {
        if (_links.flag(element) == 0 && !is_zero(_links.bytes_after_next(element))) {
            _found.add(rules::free_not_zero, _links.at(element));
        }
    }

    const list_links& _links;
    report& _found;
    std::vector<sighting> _seen;
    list_members _members;
};

} // namespace

list_members check_list(const list_links& links, report& found) {
    return list_check(links, found).check();
}

} // namespace tarvoctl
