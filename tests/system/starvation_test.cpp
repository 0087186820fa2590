// Trace records that there is no memory for.

#include "observed.hpp"
#include "pattern.hpp"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

namespace starvation_test {

namespace {

const texts device_refused{"--rule", "op=map,device=0000:04:00.0,errno=EIO"};

struct report {
    texts results;
    std::set<std::string> records;
};

/// The trace records, each once, without the places of mappings.
std::set<std::string> records_in(const std::string& error_text) {
    static const pattern place(" va 0x[0-9a-f]+");
    std::set<std::string> records;
    std::istringstream lines(error_text);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("[tarvo:")) {
            records.insert(place.replaced_in(line, " va PLACE"));
        }
    }
    return records;
}

report run(const texts& words) {
    sandbox machine(simulation, device_refused);
    process user = machine.start_process(words);
    report all;
    while (const auto line = user.read_line()) {
        all.results.push_back(*line);
    }
    EXPECT_EQ(user.wait(), normal_end) << all.results.size() << " calls were made";
    EXPECT_EQ(troubles(machine), texts{});
    all.records = records_in(user.error_text());
    return all;
}

TEST(a_trace_record_without_memory, IsLeftOutWholeAndChangesNothingElse) {
    const report starved = run({TARVO_STARVED_USER});
    EXPECT_EQ(starved.results, (texts{
                                   "start: starved, all the same",
                                   "alloc, new: starved, all the same",
                                   "alloc, the second of a name: starved, all the same",
                                   "alloc, too large: starved, all the same",
                                   "alloc, shared: starved, all the same",
                                   "alloc, for a device: starved, all the same",
                                   "free: starved, all the same",
                                   "free, unknown: needs none, all the same",
                                   "map: starved, all the same",
                                   "map, unknown: starved, all the same",
                                   "unmap: starved, all the same",
                                   "find: starved, all the same",
                                   "dma_to_pa: starved, all the same",
                                   "pa_to_dma: starved, all the same",
                                   "get_limits: starved, all the same",
                                   "map_all: starved, all the same",
                                   "unmap_all: starved, all the same",
                                   "dump_begin: needs none, all the same",
                                   "dump_next: needs none, all the same",
                                   "dump_end: needs none, all the same",
                                   "register_device: starved, all the same",
                                   "register_device, refused: starved, all the same",
                                   "unregister_device: starved, all the same",
                                   "unregister_device, unknown: needs none, all the same",
                                   "iommu_map: starved, all the same",
                                   "iommu_unmap: starved, all the same",
                               }));
    const std::set<std::string> whole = run({TARVO_STARVED_USER, "fed"}).records;
    for (const std::string& record : starved.records) {
        const bool names_nobody = record.find("Error formatting string") != std::string::npos;
        EXPECT_TRUE(whole.contains(record) || names_nobody) << record;
    }
    EXPECT_GT(whole.size(), 20U);
}

} // namespace

} // namespace starvation_test
