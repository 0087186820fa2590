#pragma once

#include "raw_records.hpp"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace tarvoctl {

/// How bad a finding is, the mildest first.
enum class finding_class {
    note,      ///< worth knowing; nothing is wrong with the area
    tolerated, ///< the library itself can leave this behind and works on with it
    leaked,    ///< an element that is neither on its list nor free: lost until repaired
    broken,    ///< a rule of the area does not hold: calls may end their process or do harm
};

std::string_view name_of(finding_class cls);

/// As people read it: "chunk 17", "chunk 17, device reference 3", "the device list". `label`
/// follows the number of the chunk or device.
std::string text_of(const place& where, const std::string& label = "");

/// What helps against what repair leaves broken.
enum class remedy {
    remove_file,       ///< while nobody uses it: the next program builds a new one
    free_chunk,        ///< and allocate it again
    unregister_device, ///< and register it again
};

struct finding {
    finding_class cls = finding_class::note;
    std::string rule; ///< short and stable, such as "chunk-link-out-of-range"
    place where;
    std::string text; ///< the values found and what they mean
    /// Further findings of this rule that were counted but not listed; on the rule's last one.
    size_t unlisted = 0;
    remedy out = remedy::remove_file; ///< where it is broken
};

/// A step that gives up what is on record of the devices: they come first, because nothing unmaps
/// the memory for them then.
std::string after_devices(const std::string& step);

/// The step that lets the next program build an area anew.
std::string removal_text(const std::string& file);

/// after_devices() where that area says that devices see any chunk; otherwise the step alone.
std::string after_devices_if_mapped(const std::string& step, const shared_area_t& area);

/// What helps against all that is broken in that area, as a sentence without its end. Removing the
/// file helps against everything.
std::string remedy_text(const std::vector<finding>& findings, const shared_area_t& area);

} // namespace tarvoctl
