#include "commands.hpp"
#include "tarvo.h"

namespace {

std::string register_device(const arguments& a) {
    return std::to_string(tarvo_register_device(a.number_32(0), a.number_32(1), a.number_32(2)));
}

std::string unregister_device(const arguments& a) {
    return std::to_string(tarvo_unregister_device(a.number_32(0), a.number_32(1), a.number_32(2)));
}

std::string iommu_map(const arguments& a) {
    return std::to_string(
        tarvo_iommu_map(a.number_32(0), a.number_32(1), a.number_32(2), a.number_32(3)));
}

std::string iommu_unmap(const arguments& a) {
    return std::to_string(tarvo_iommu_unmap(a.number_32(0), a.number_32(1), a.number_32(2)));
}

} // namespace

commands device_commands() {
    return {
        {"register DOMAIN BUS DEVFN", register_device},
        {"unregister DOMAIN BUS DEVFN", unregister_device},
        {"iommu_map DOMAIN BUS DEVFN PROT", iommu_map},
        {"iommu_unmap DOMAIN BUS DEVFN", iommu_unmap},
    };
}
