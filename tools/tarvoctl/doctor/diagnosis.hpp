#pragma once

#include "host/folder_fault.hpp"
#include "host/lock_state.hpp"
#include "host/mappings.hpp"
#include "host/site.hpp"

#include <string>
#include <vector>

namespace tarvoctl {

enum class verdict { ok, note, warning, error };

/// What one check found, and what helps.
struct diagnosis {
    verdict how;
    std::string subject; ///< a file, or what the check is about
    std::string text;    ///< as a terminal can show it
    std::string fix;     ///< empty where nothing is to be done
};

/// Collects what the checks find.
class health_report {
  public:
    void add(verdict how, std::string subject, std::string text, std::string fix = {}) {
        _all.push_back({how, std::move(subject), std::move(text), std::move(fix)});
    }
    /// An error that says that the area is damaged: nothing else does.
    void add_damage(std::string subject, std::string text, std::string fix) {
        add(verdict::error, std::move(subject), std::move(text), std::move(fix));
        _damaged = true;
    }
    void set_readable() { _readable = true; }

    const std::vector<diagnosis>& all() const { return _all; }
    size_t count(verdict how) const;
    bool is_damaged() const { return _damaged; }   ///< the area
    bool is_readable() const { return _readable; } ///< the area, or where the region lies

  private:
    std::vector<diagnosis> _all;
    bool _damaged = false;
    bool _readable = false;
};

/// Why the library takes the files that it takes.
void diagnose_selection(const site& here, health_report& report);
/// Presence, kind, owner, mode and size of every file and folder.
void diagnose_files(const site& here, health_report& report);
/// What the kernel lets other users do with files in /var/tmp.
void diagnose_protection(health_report& report);
/// The region driver, the IOMMU driver, and access to physical memory. Writes nothing.
void diagnose_drivers(const site& here, health_report& report);
/// The area: the rules of check, whether it is of this region, and whether its devices are online.
/// Takes no lock, which is looked at elsewhere: reads until two readings are alike.
void diagnose_area(const site& here, health_report& report);
/// The lock: who has it, and whether all users of the area take the same one.
void diagnose_users(const site& here, health_report& report);

} // namespace tarvoctl
