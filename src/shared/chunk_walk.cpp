#include "shared/chunk_walk.hpp"

namespace {

/// So many wrong guesses in one walk say that the order is another one altogether.
constexpr int wrong_guesses_for_a_new_order = 64;

} // namespace

void chunk_walk::iterator::take_slow_step() {
    const size_t from = _element;
    go_to(_list->next(_chunk));
    if (at_end()) {
        return;
    }
    const size_t steps = _quick_steps + _later_steps;
    chunk_list::check_visited(chunk_capacity + 1 - static_cast<int>(steps));
    if (chunk_order.after(from) == _element) {
        fetch(full_lead - first_lead);
        plan(steps, steps);
        return;
    }
    chunk_order.learn(from, _element);
    ++_wrong_guesses;
    if (_wrong_guesses == wrong_guesses_for_a_new_order) {
        chunk_order.learn_all(*_list);
    }
    start_fetching(steps);
}
