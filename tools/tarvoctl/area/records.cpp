#include "records.hpp"

#include <algorithm>
#include <string_view>
#include <unordered_map>

namespace tarvoctl {

const device_record* picture::device_at(int index) const {
    const auto found = std::find_if(devices.begin(), devices.end(),
                                    [index](const auto& device) { return device.index == index; });
    return found == devices.end() ? nullptr : &*found;
}

const chunk_record* picture::find(const std::string& name) const {
    const auto found = std::find_if(chunks.begin(), chunks.end(),
                                    [&name](const auto& chunk) { return chunk.name == name; });
    return found == chunks.end() ? nullptr : &*found;
}

std::vector<bool> picture::duplicates() const {
    std::unordered_map<std::string_view, int> bearers;
    for (const auto& chunk : chunks)
        ++bearers[chunk.name];
    std::vector<bool> marks;
    marks.reserve(chunks.size());
    for (const auto& chunk : chunks)
        marks.push_back(bearers[chunk.name] > 1);
    return marks;
}

} // namespace tarvoctl
