#pragma once

#include <functional>

/// How new processes fared that worked at the same time.
struct crowd_result {
    double time;    ///< nanoseconds for each operation, whoever did it
    double slowest; ///< operations of the one that did fewest, as a share of their mean
};

using operation = std::function<void()>;

/// Starts that many processes. Each gets its operation from `enrol`, called there with a number of
/// its own, and repeats it until all have worked for a while together.
crowd_result work_as_crowd(int count, const std::function<operation(int)>& enrol);
