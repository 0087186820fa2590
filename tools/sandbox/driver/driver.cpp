#include "driver/driver.hpp"

#include "driver/listing.hpp"

#include <algorithm>
#include <cerrno>
#include <limits>

namespace sandbox {

namespace {

event make_event(const driver_handle& handle, moment at, const request* asked) {
    return {handle.file, at, handle.reads, handle.writes, asked};
}

const request* pointer_to(const std::optional<request>& asked) {
    return asked ? &*asked : nullptr;
}

template <typename Answer>
const Answer* answer_of(const rule* answering) {
    return answering == nullptr ? nullptr : std::get_if<Answer>(&answering->answer);
}

int error_of(const rule* answering) {
    const auto* const refused = answer_of<refusal>(answering);
    return refused == nullptr ? 0 : refused->error;
}

bool lies_in(const request& asked, const region& served) {
    return served.first_pa <= asked.start_pa && asked.start_pa <= asked.end_pa &&
           asked.end_pa <= served.last_pa;
}

/// Whether the whole range can be seen by 32-bit addresses.
bool has_dma_addresses(const request& asked) {
    return asked.end_pa - asked.start_pa <= std::numeric_limits<uint32_t>::max() - asked.start_dma;
}

} // namespace

driver::driver(const std::optional<region>& served, std::string region_line, event_log log)
    : _region{served}, _region_line{std::move(region_line)}, _log{std::move(log)} {
    if (served && served->is_cma()) {
        _cma.emplace(served->first_pa, served->last_pa);
    }
}

int driver::open(driver_handle& handle, pid_t pid) {
    const event seen = make_event(handle, moment::open, nullptr);
    const rule* const answering = _rules.answer_to(seen);
    const int error = error_of(answering);
    if (handle.file == driver_file::proc) {
        handle.listing = make_listing(
            _region_line, _cma ? _cma->allocations() : std::vector<cma_allocation>{}, answering);
    }
    _log.add(seen, {pid, handle.truncates, {}, error, 0});
    return error;
}

int driver::carry_out_cma(const request& asked, const rule* answering) {
    if (asked.op == operation::release) {
        return _cma->release(asked.name, asked.size_bytes);
    }
    const auto* const handed_out = answer_of<handed_out_address>(answering);
    return _cma->allocate(asked.name, asked.size_bytes,
                          handed_out == nullptr ? std::nullopt : std::optional{handed_out->pa});
}

/// Whether a range is mapped already is for the IOMMU to check, not for its driver.
int driver::carry_out_iommu(const request& asked) const {
    return (!_region || lies_in(asked, *_region)) && has_dma_addresses(asked) ? 0 : EINVAL;
}

int driver::carry_out(driver_file file, const request* asked, const rule* answering) {
    if (asked == nullptr) {
        return EINVAL;
    }
    if (file == driver_file::sysfs) {
        return carry_out_iommu(*asked);
    }
    return _cma ? carry_out_cma(*asked, answering) : EINVAL;
}

driver::write_result driver::write(driver_handle& handle, pid_t pid, std::string_view bytes) {
    handle.last_request = parse_request(handle.file, bytes);
    const request* const asked = pointer_to(handle.last_request);
    const event seen = make_event(handle, moment::write, asked);
    const rule* const answering = _rules.answer_to(seen);

    write_result result{error_of(answering), bytes.size()};
    const auto* const cut = answer_of<short_write>(answering);
    if (cut != nullptr) {
        result.accepted_bytes = std::min(bytes.size(), cut->bytes);
    }
    // A command that was cut is not carried out; the caller sees how many bytes were accepted.
    const bool cut_off = result.accepted_bytes < bytes.size();
    if (result.error == 0 && !cut_off) {
        result.error = carry_out(handle.file, asked, answering);
    }

    _log.add(seen, {pid, handle.truncates, bytes, result.error, result.accepted_bytes});
    return result;
}

int driver::close(const driver_handle& handle, pid_t pid) {
    const event seen = make_event(handle, moment::close, pointer_to(handle.last_request));
    const int error = error_of(_rules.answer_to(seen));
    _log.add(seen, {pid, handle.truncates, {}, error, 0});
    return error;
}

} // namespace sandbox
