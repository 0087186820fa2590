#pragma once

#include "zul/Trace.hpp"

#include <cstddef>
#include <string_view>

/// The levels the library traces at.
inline constexpr Zul::TraceFacility::FacilityLevel trace_failure{3};
inline constexpr Zul::TraceFacility::FacilityLevel trace_progress{5};
inline constexpr Zul::TraceFacility::FacilityLevel trace_translation{6};

[[gnu::cold]] inline Zul::TraceHandle make_trace_handle() {
    constexpr std::string_view facility = "tarvo";
    return {Zul::String(facility.data(), facility.size()), false};
}

/// The library's one trace handle, facility "tarvo", made on first use. Inlined even so: whether a
/// level is enabled is asked several times in each call.
[[gnu::always_inline]] inline Zul::TraceHandle& _defaultTraceHandle() {
    static Zul::TraceHandle handle = make_trace_handle();
    return handle;
}

/// One trace record of a level that is enabled.
class trace_record {
  public:
    explicit trace_record(Zul::TraceFacility::FacilityLevel level)
        : _helper(Zul::TraceHelper::createIfEnabled(_defaultTraceHandle(), level, _storage)),
          _ensure_destroyed(_helper) {}

    std::ostream& stream() { return _helper->stream(); }
    void emit(int line, const char* function) { _helper->trace("tarvo", line, function); }

  private:
    alignas(Zul::TraceHelper) std::byte _storage[sizeof(Zul::TraceHelper)];
    Zul::TraceHelper* _helper;
    Zul::EnsureTraceHelperIsDestroyed _ensure_destroyed;
};

/// Traces what follows `function`, one or more values with << between. The record is tagged with
/// the line and with `function`, the name it is known by, wherever the code stands. When the level
/// is disabled nothing is evaluated, and the question costs a few instructions in place.
#define TARVO_TRACE_AT(level, line, function, ...)                                                 \
    do {                                                                                           \
        if (_defaultTraceHandle().enabled(level)) [[unlikely]] {                                   \
            trace_record record(level);                                                            \
            record.stream() << __VA_ARGS__;                                                        \
            record.emit(line, function);                                                           \
        }                                                                                          \
    } while (false)

/// The common form: this line, and a printf format with its arguments.
#define TARVO_TRACE(level, function, ...)                                                          \
    TARVO_TRACE_AT(level, __LINE__, function, Zul::format(__VA_ARGS__))
