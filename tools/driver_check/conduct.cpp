#include "clause.hpp"

namespace driver_check {

std::span<const clause> conduct_clauses() {
    static constexpr clause clauses[] = {
        {"7.1", "It never claims its region as busy", need::insight},
        {"7.2", "It never takes System RAM that it has not got from the kernel", need::insight},
        {"7.3", "It never goes while something stands", need::insight},
        {"7.4", "It never answers for another reason by an error of section 6", need::insight},
    };
    return clauses;
}

} // namespace driver_check
