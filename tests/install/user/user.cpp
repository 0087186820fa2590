#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <span>
#include <string_view>
#include <tarvo.hpp>

using namespace tarvo::literals;

int main() {
    const auto ring = tarvo::allocate("ring", 64_KiB, "user");
    if (!ring) {
        std::printf("%s\n", ring.error().message());
        return 1;
    }
    const auto memory = tarvo::map(*ring);
    if (!memory) {
        std::printf("%s\n", memory.error().message());
        return 1;
    }
    constexpr std::string_view text = "ready";
    std::ranges::copy(std::as_bytes(std::span(text)), memory->span().begin());
    std::printf("%s at 0x%08x\n", reinterpret_cast<const char*>(memory->span().data()),
                static_cast<unsigned>(ring->dma().value()));
    return 0;
}
