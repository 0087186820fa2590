#include "output/map_marks.hpp"

#include <algorithm>
#include <fmt/format.h>

namespace tarvoctl {

namespace {

std::vector<map_mark> counted_beyond_four(const std::vector<std::string>& numbers, bool is_device) {
    constexpr size_t most_marks = 4;
    std::vector<map_mark> marks;
    for (const std::string& number : numbers) {
        if (marks.size() == most_marks) {
            marks.push_back({0, 0, is_device, fmt::format("+{}", numbers.size() - most_marks)});
            break;
        }
        marks.push_back({0, 0, is_device, number});
    }
    return marks;
}

} // namespace

map_marks::map_marks(const picture& records, const mapped_memory* memory, process_table& processes)
    : _records{records}, _memory{memory}, _processes{processes} {
    if (memory == nullptr) {
        return;
    }
    for (const region_mapping& each : memory->mappings) {
        if (!shows_all_of(each, records.region)) {
            _partial.mappings.push_back(each);
            _numbers.try_emplace(each.pid, 0);
        } else if (std::ranges::find(_whole_region, each.pid) == _whole_region.end()) {
            _whole_region.push_back(each.pid);
        }
    }
    size_t number = 0;
    for (auto& [pid, its_number] : _numbers) {
        its_number = ++number;
    }
}

std::vector<map_mark> map_marks::of(const chunk_record& chunk) const {
    std::vector<std::string> devices;
    for (const int index : chunk.devices) {
        const device_record* const device = _records.device_at(index);
        const auto number = device == nullptr ? 0 : device - _records.devices.data() + 1;
        devices.push_back(device == nullptr ? "?" : fmt::format("{}", number));
    }
    std::vector<std::string> holders;
    for (const pid_t pid : holders_of(chunk, _partial)) {
        holders.push_back(fmt::format("{}", _numbers.at(pid)));
    }
    auto marks = counted_beyond_four(devices, true);
    const auto of_holders = counted_beyond_four(holders, false);
    marks.insert(marks.end(), of_holders.begin(), of_holders.end());
    return marks;
}

void map_marks::use(const map_mark& mark) {
    _used.emplace(mark.is_device, mark.number);
}

std::vector<std::pair<map_mark, std::string>> map_marks::used() const {
    std::vector<std::pair<map_mark, std::string>> lines;
    const auto add = [&](bool is_device, const std::string& number, const std::string& text) {
        if (_used.contains({is_device, number})) {
            lines.push_back({{0, 0, is_device, number}, text});
        }
    };
    for (size_t i = 0; i < _records.devices.size(); ++i) {
        const device_record& device = _records.devices[i];
        add(true, fmt::format("{}", i + 1),
            fmt::format("device {}{}", device_text(device), device.online ? "" : ", offline"));
    }
    add(true, "?", "a device that is not registered");
    for (const auto& [pid, number] : _numbers) {
        add(false, fmt::format("{}", number), "mapped by " + _processes.text(pid));
    }
    return lines;
}

std::vector<std::string> map_marks::remarks() const {
    std::vector<std::string> lines;
    if (!_whole_region.empty()) {
        lines.push_back("the whole region is mapped by " +
                        processes_text(_whole_region, _processes));
    }
    if (_memory == nullptr) {
        lines.emplace_back("a copy of the area: who has chunks mapped is unknown");
    } else if (!_memory->is_complete()) {
        lines.push_back(unseen_text(*_memory, _processes));
    }
    return lines;
}

} // namespace tarvoctl
