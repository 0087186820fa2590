// first_trace: several threads make their first trace records at once, as those of a program may
// that calls the library from one of them after another. scripts/analyze builds it with
// ThreadSanitizer, which ends it where they are not kept apart.

#include "shared/trace.hpp"

#include <barrier>
#include <cstdlib>
#include <thread>
#include <vector>

int main() {
    constexpr int thread_count = 8;
    setenv("ZUL_TRACE", "tarvo=5", 1);
    std::barrier all_ready(thread_count);
    std::vector<std::jthread> threads;
    for (int i = 0; i < thread_count; ++i) {
        threads.emplace_back([&all_ready, i] {
            all_ready.arrive_and_wait();
            TARVO_TRACE(trace_progress, "first_trace", "thread %d", i);
        });
    }
}
