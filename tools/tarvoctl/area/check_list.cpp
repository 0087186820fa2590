#include "check_list.hpp"

#include <string_view>

namespace tarvoctl {

namespace {

/// The check of one list.
class list_check {
  public:
    list_check(const list_links& links, report& found)
        : _links(links), _found(found), _seen(static_cast<size_t>(links.capacity), unseen) {}

    list_members check() {
        if (ends_are_usable()) {
            walk();
        }
        walk_free_chain();
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
            _found.add(rule::end_out_of_range, _links.list,
                       "head is {} and tail is {}; both must be -1 or 0 to {}", head, tail,
                       _links.capacity - 1);
        } else if ((head == -1) != (tail == -1)) {
            _found.add(rule::one_end_only, _links.list,
                       "head is {} and tail is {}: a list has both ends or none", head, tail);
        }
        return _links.has(head);
    }

    void walk() {
        int element = _links.head;
        while (enter_listed(element) && element != _links.tail) {
            const int32_t following = _links.next(element);
            if (!_links.has(following)) {
                _found.add(rule::link_out_of_range, _links.at(element),
                           "next is {}: the list cannot be followed to its tail {}", following,
                           _links.tail);
                return;
            }
            check_back_link(element, following);
            element = following;
        }
        if (element == _links.tail && !_members.listed.empty() &&
            _members.listed.back() == element) {
            check_circle();
        }
    }

    /// Notes an element as part of the list; false when the walk has been there.
    bool enter_listed(int element) {
        if (seen(element) == listed) {
            _found.add(
                rule::cycle, _links.at(element),
                "the walk comes back to this element after {} elements and never reaches the "
                "tail {}",
                _members.listed.size(), _links.tail);
            return false;
        }
        seen(element) = listed;
        _members.listed.push_back(element);
        if (_links.flag(element) == 0) {
            _found.add(rule::listed_not_allocated, _links.at(element),
                       "on the list but not marked allocated: every walk over it ends its process");
        }
        return true;
    }

    void check_back_link(int element, int following) {
        if (seen(following) != listed && _links.prev(following) != element) {
            _found.add(rule::back_link_wrong, _links.at(following),
                       "prev is {}, but the list comes here from {}", _links.prev(following),
                       element);
        }
    }

    void check_circle() {
        if (_links.next(_links.tail) != _links.head) {
            _found.add(rule::circle_open, _links.at(_links.tail),
                       "next of the tail is {} instead of the head {}", _links.next(_links.tail),
                       _links.head);
        }
        if (_links.prev(_links.head) != _links.tail) {
            _found.add(rule::circle_open, _links.at(_links.head),
                       "prev of the head is {} instead of the tail {}", _links.prev(_links.head),
                       _links.tail);
        }
    }

    void walk_free_chain() {
        place where = _links.list;
        int32_t element = _links.free;
        while (element != -1) {
            if (!_links.has(element)) {
                _found.add(rule::free_link_out_of_range, where,
                           "the free chain goes on at {}, which is not an element", element);
                return;
            }
            if (!enter_free(element)) {
                return;
            }
            where = _links.at(element);
            element = _links.next(element);
        }
    }

    bool enter_free(int element) {
        if (seen(element) == free) {
            _found.add(rule::free_cycle, _links.at(element),
                       "the free chain comes back to this element after {} elements",
                       _members.free.size());
            return false;
        }
        if (seen(element) == listed) {
            _found.add(rule::free_and_listed, _links.at(element),
                       "on the list and on the free chain: it would be handed out while in use");
            return false;
        }
        seen(element) = free;
        _members.free.push_back(element);
        if (_links.flag(element) != 0) {
            _found.add(rule::free_but_allocated, _links.at(element),
                       "on the free chain but marked allocated: taking it ends the process");
        }
        return true;
    }

    void check_flag(int element) {
        if (_links.flag(element) > 1) {
            _found.add(rule::flag_value, _links.at(element), "allocated is {}; it must be 0 or 1",
                       _links.flag(element));
        }
    }

    void check_unseen(int element) {
        if (seen(element) != unseen) {
            return;
        }
        if (_links.flag(element) != 0) {
            _found.add(rule::allocated_on_no_list, _links.at(element),
                       "marked allocated, but the walk over the list does not come here");
        } else {
            _found.add(
                rule::free_on_no_chain, _links.at(element),
                "not allocated, and the free chain does not come here: it is never used again");
        }
    }

    void check_free(int element) {
        if (_links.flag(element) == 0 && !is_zero(_links.bytes_after_next(element))) {
            _found.add(rule::free_not_zero, _links.at(element),
                       "free but not zero: whoever takes it finds what is left there");
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
