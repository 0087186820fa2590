#pragma once

#include "list_walk.hpp"

#include <cstdint>
#include <functional>
#include <vector>

namespace tarvoctl {

/// What the links alone say.
///
/// The list is what the library's own walk visits, from the head along `next` to the tail. Each of
/// its changes alters that walk by a single store, so wherever the change ended, a walk that
/// reaches the tail shows the list either without the change or with it. Elements off it are then
/// what the change was about to add or had just removed. Where that walk breaks off, the one from
/// the tail along `prev` takes its place, and where that does, too, what both visit.
///
/// Some elements off the walk are more than that and belong to the list: two that link to each
/// other both ways, because a change concerns one element; off any walk but the library's own, one
/// that links both ways with a listed one; and one that names the last element before a break as
/// its neighbour. These are returned by detached().
class link_reader {
  public:
    /// `may_be_listed`: whether an element whose flag is lost could be one in use.
    link_reader(const list_links& links, std::function<bool(int)> may_be_listed);

    const std::vector<int>& order() const { return _order; }
    /// Whether one of the walks was whole, so that what is not on it is not on the list.
    bool is_sound() const { return _source != order_source::pieces; }
    /// In element order.
    const std::vector<int>& detached() const { return _detached; }
    /// Marked allocated, but neither on the walk nor detached.
    const std::vector<int>& unlinked() const { return _unlinked; }

  private:
    /// What the order was taken from.
    enum class order_source { own_walk, other_walk, pieces };
    struct walked {
        std::vector<int> elements;
        bool whole;
    };

    int32_t follow(link_direction along, int element) const { return (_links.*along)(element); }
    bool is_linked_both_ways(int element) const;
    bool is_the_only_one(int element) const;
    bool is_member(int element) const;
    walked walk_to(int from, int to, link_direction along) const;
    walked circle(int from, link_direction along) const;
    void read_order();
    void read_between_ends();
    void read_from_head();
    void read_from_tail();
    void take(std::vector<int> order, order_source source);
    void join(const std::vector<int>& prefix, const std::vector<int>& suffix_backwards);
    void sort_out_the_rest();
    bool is_detached(int element, const std::vector<bool>& no_evidence) const;
    bool is_at_a_break(int element) const;

    const list_links& _links;
    std::function<bool(int)> _may_be_listed;
    std::vector<int> _order;
    order_source _source = order_source::pieces;
    /// Where the two walks broke off, if they did.
    int _last_forward = -1;
    int _last_backward = -1;
    std::vector<int> _detached;
    std::vector<int> _unlinked;
};

} // namespace tarvoctl
