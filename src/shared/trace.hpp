#pragma once

#include "zul/Trace.hpp"

#include <cerrno>
#include <cstddef>
#include <exception>
#include <ios>
#include <ostream>
#include <string_view>

/// The levels the library traces at.
inline constexpr Zul::TraceFacility::FacilityLevel trace_failure{3};
inline constexpr Zul::TraceFacility::FacilityLevel trace_progress{5};
inline constexpr Zul::TraceFacility::FacilityLevel trace_translation{6};

/// The name is short enough to be kept without memory of its own, so that this does not throw.
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

/// Has `add_text` put its text into a record. A null text fails the stream: that drops the rest of
/// the line, but not the record.
template <typename Function>
void add_trace_text(std::ostream& stream, const Function& add_text) {
    try {
        add_text(stream);
    } catch (const std::ios_base::failure&) {
    }
}

/// Makes one trace record of a level that is enabled. This happens in the middle of calls, with the
/// lock held and lists half changed: nothing is thrown, and errno stays as it was. A record that
/// there is no memory for is left out.
template <typename Function>
[[gnu::noinline, gnu::cold]] void write_trace_record(Zul::TraceFacility::FacilityLevel level,
                                                     int line, const char* function,
                                                     const Function& add_text) {
    const int callers_errno = errno;
    try {
        alignas(Zul::TraceHelper) std::byte storage[sizeof(Zul::TraceHelper)];
        Zul::TraceHelper* helper =
            Zul::TraceHelper::createIfEnabled(_defaultTraceHandle(), level, storage);
        const Zul::EnsureTraceHelperIsDestroyed ensure(helper);
        add_trace_text(helper->stream(), add_text);
        helper->trace("tarvo", line, function);
    } catch (const std::exception&) {
    }
    errno = callers_errno;
}

/// Traces what follows `function`, one or more values with << between. The record is tagged with
/// the line and with `function`, the name it is known by, wherever the code stands. When the level
/// is disabled nothing is evaluated, and the question costs a few instructions in place.
#define TARVO_TRACE_AT(level, line, function, ...)                                                 \
    do {                                                                                           \
        if (_defaultTraceHandle().enabled(level)) [[unlikely]] {                                   \
            write_trace_record(level, line, function,                                              \
                               [&](std::ostream& stream) { stream << __VA_ARGS__; });              \
        }                                                                                          \
    } while (false)

/// The common form: this line, and a printf format with its arguments.
#define TARVO_TRACE(level, function, ...)                                                          \
    TARVO_TRACE_AT(level, __LINE__, function, Zul::format(__VA_ARGS__))
