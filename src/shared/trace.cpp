#include "shared/trace.hpp"

#include <string_view>

Zul::TraceHandle& _defaultTraceHandle() {
    constexpr std::string_view facility = "tarvo";
    static Zul::TraceHandle handle(Zul::String(facility.data(), facility.size()), false);
    return handle;
}
