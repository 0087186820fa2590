#pragma once

#include "zul/Trace.hpp"

#include <cstddef>
#include <string_view>

/// The levels the library traces at.
inline constexpr Zul::TraceFacility::FacilityLevel trace_failure{3};
inline constexpr Zul::TraceFacility::FacilityLevel trace_progress{5};
inline constexpr Zul::TraceFacility::FacilityLevel trace_translation{6};

/// The library's one trace handle, facility "tarvo", made on first use.
inline Zul::TraceHandle& _defaultTraceHandle() {
    constexpr std::string_view facility = "tarvo";
    static Zul::TraceHandle handle(Zul::String(facility.data(), facility.size()), false);
    return handle;
}

/// One trace record, if its level is enabled.
class trace_record {
  public:
    explicit trace_record(Zul::TraceFacility::FacilityLevel level)
        : _helper(Zul::TraceHelper::createIfEnabled(_defaultTraceHandle(), level, _storage)),
          _ensure_destroyed(_helper) {}

    bool enabled() const { return _helper != nullptr; }
    std::ostream& stream() { return _helper->stream(); }
    void emit(int line, const char* function) { _helper->trace("tarvo", line, function); }

  private:
    alignas(Zul::TraceHelper) std::byte _storage[sizeof(Zul::TraceHelper)];
    Zul::TraceHelper* _helper;
    Zul::EnsureTraceHelperIsDestroyed _ensure_destroyed;
};

/// Traces what follows `function`, one or more values with << between. The record is tagged with
/// the line and with `function`, the name it is known by, wherever the code stands. When the level
/// is disabled nothing is evaluated.
#define TARVO_TRACE_AT(level, line, function, ...)                                                 \
    do {                                                                                           \
        trace_record record(level);                                                                \
        if (record.enabled()) {                                                                    \
            record.stream() << __VA_ARGS__;                                                        \
            record.emit(line, function);                                                           \
        }                                                                                          \
    } while (false)

/// The common form: this line, and a printf format with its arguments.
#define TARVO_TRACE(level, function, ...)                                                          \
    TARVO_TRACE_AT(level, __LINE__, function, Zul::format(__VA_ARGS__))
