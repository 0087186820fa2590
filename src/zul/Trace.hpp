#pragma once

#include "zul/String.hpp"

#include <memory>
#include <sstream>
#include <string>

// The smallest stand-in for the trace facility of the support library. The environment variable
// ZUL_TRACE says what is enabled: "tarvo=5" (one facility), "5" (every facility), or several of
// these with commas between; records up to and including that level are written. An enabled
// record is one line on standard error:
//
//     [tarvo:5] tarvo:123 tarvo_map: text
//      facility:level, source:line, function, text

namespace Zul {

class TraceFacility {
  public:
    /// The higher the level, the more detailed the record. Any number is a level.
    enum FacilityLevel : int {};
};

/// A named source of trace records, with the level that the environment enables for it.
class TraceHandle {
  public:
    TraceHandle(const String& facility, bool /*unused*/);
    const std::string& facility() const { return _facility; }
    bool enabled(TraceFacility::FacilityLevel level) const { return level <= _enabled_up_to; }

  private:
    std::string _facility;
    int _enabled_up_to;
};

/// Collects the text of one record.
class TraceHelper {
  public:
    /// A helper built in `storage` (room and alignment for a TraceHelper) if `handle` is enabled
    /// at `level`; otherwise null, and nothing else happens.
    static TraceHelper* createIfEnabled(TraceHandle& handle, TraceFacility::FacilityLevel level,
                                        void* storage);

    /// Throws what cannot be put into it: a text cut short would pass for a whole one.
    std::ostream& stream() { return _text; }

    /// Writes the record with one write.
    void trace(const char* file, int line, const char* function);

  private:
    TraceHelper(const TraceHandle& handle, TraceFacility::FacilityLevel level)
        : _handle(handle), _level(level) {
        _text.exceptions(std::ios_base::badbit);
    }

    const TraceHandle& _handle;
    TraceFacility::FacilityLevel _level;
    std::ostringstream _text;
};

/// Destroys a helper at the end of the scope, also when an exception passes. Null is allowed.
class EnsureTraceHelperIsDestroyed {
  public:
    explicit EnsureTraceHelperIsDestroyed(TraceHelper* helper) : _helper(helper) {}
    ~EnsureTraceHelperIsDestroyed() {
        if (_helper != nullptr) {
            std::destroy_at(_helper);
        }
    }
    EnsureTraceHelperIsDestroyed(const EnsureTraceHelperIsDestroyed&) = delete;
    EnsureTraceHelperIsDestroyed& operator=(const EnsureTraceHelperIsDestroyed&) = delete;

  private:
    TraceHelper* _helper;
};

} // namespace Zul
