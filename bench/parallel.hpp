#pragma once

#include <functional>

/// What new processes achieved that worked at the same time.
struct parallel_result {
    double time;    ///< nanoseconds for each operation of any process
    double slowest; ///< operations of the one that did fewest, as a share of their mean
};

using operation = std::function<void()>;

/// Starts that many processes. Each gets its operation from `prepare`, which is called there with a
/// number of its own, and repeats it until all have worked for a while together.
parallel_result run_in_parallel(int count, const std::function<operation(int)>& prepare);
