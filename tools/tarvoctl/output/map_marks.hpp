#pragma once

#include "area/records.hpp"
#include "host/mappings.hpp"
#include "output/map_layout.hpp"
#include "output/process_text.hpp"

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tarvoctl {

/// The marks for the devices that see chunks, and for the processes that have them mapped.
class map_marks {
  public:
    /// `memory`: null where it is unknown who maps the region.
    map_marks(const picture& records, const mapped_memory* memory, process_table& processes);

    /// Those of a chunk, a few of each kind and then one with the number of the others.
    std::vector<map_mark> of(const chunk_record& chunk) const;

    /// Those that stand in the picture get a line in the legend.
    void use(const map_mark& mark);
    std::vector<std::pair<map_mark, std::string>> used() const;

    /// What marks cannot say.
    std::vector<std::string> remarks() const;

  private:
    const picture& _records;
    const mapped_memory* _memory;
    process_table& _processes;
    mapped_memory _partial;           ///< without mappings of the whole region
    std::vector<pid_t> _whole_region; ///< who has those
    std::map<pid_t, size_t> _numbers;
    std::set<std::pair<bool, std::string>> _used; ///< of a device or not, number
};

} // namespace tarvoctl
