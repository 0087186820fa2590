#pragma once

#include "driver/cma_table.hpp"
#include "driver/event_log.hpp"
#include "driver/region.hpp"
#include "driver/rule_book.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace sandbox {

/// One open file of the driver.
struct driver_handle {
    driver_file file = driver_file::proc;
    bool reads = false;
    bool writes = false;
    bool truncates = false;
    /// What reads give: taken at the open, so that one reader sees one state.
    std::string listing;
    std::optional<request> last_request;
};

/// The kernel driver's double: answers every open, write and close, keeps the CMA allocations, and
/// logs. Knows nothing of file systems; pid is the calling process.
class driver {
  public:
    /// The line is the first one of /proc/tarvo, whether it describes the region or not.
    driver(const std::optional<region>& served, std::string region_line, event_log log);

    /// 0 or the errno of the open.
    int open(driver_handle& handle, pid_t pid);

    struct write_result {
        int error = 0;
        size_t accepted_bytes = 0;
    };
    write_result write(driver_handle& handle, pid_t pid, std::string_view bytes);

    /// 0 or the errno that the closing process is to see; the file is closed either way.
    int close(const driver_handle& handle, pid_t pid);

    rule_book& rules() { return _rules; }

  private:
    int carry_out(driver_file file, const request* asked, const rule* answering);
    int carry_out_iommu(const request& asked) const;
    int carry_out_cma(const request& asked, const rule* answering);

    std::optional<region> _region;
    std::string _region_line;
    std::optional<cma_table> _cma;
    rule_book _rules;
    event_log _log;
};

} // namespace sandbox
