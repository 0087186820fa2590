#include "iommu/request.hpp"

#include "assertion.hpp"
#include "shared/driver_lines.hpp"
#include "shared/open.hpp"
#include "shared/paths.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace {

/// The 32-bit difference of the DMA addresses, sign-extended, against the 64-bit one.
bool same_length(const iommu_mapping_t& range) {
    const uint32_t dma_bytes =
        static_cast<uint32_t>(range.end_dma) - static_cast<uint32_t>(range.start_dma);
    const uint64_t pa_bytes =
        static_cast<uint64_t>(range.end_pa) - static_cast<uint64_t>(range.start_pa);
    return static_cast<int64_t>(static_cast<int32_t>(dma_bytes)) == static_cast<int64_t>(pa_bytes);
}

/// One request, in the types that its line and its failure message print.
struct request_line {
    const char* op;
    int domain;
    int bus;
    int devfn;
    unsigned long long start_pa;
    unsigned long long last_pa;
    unsigned long start_dma;
    int prot;
};

/// Writes the line and returns 0, or the negative result of the write. An errno left by a failed
/// write stays for the caller.
int write_line(FILE* driver, const request_line& line) {
    const int written = fprintf(driver, request_format, line.op, line.domain, line.bus, line.devfn,
                                line.start_pa, line.last_pa, line.start_dma, line.prot);
    // A kernel without an IOMMU answers ENOSYS to everything: every request is then a success.
    if (written >= 0 || errno == ENOSYS) {
        return 0;
    }
    fprintf(stderr,
            "tarvo: failed to iommu %s domain %d bus %d devfn %d startpa 0x%llx endpa 0x%llx "
            "startdma 0x%lx prot %d errno %d\n",
            line.op, line.domain, line.bus, line.devfn, line.start_pa, line.last_pa, line.start_dma,
            line.prot, errno);
    return written;
}

/// Writes unbuffered, so that a refusal shows in the write's own result and is not lost in
/// fclose. A setvbuf that fails with a positive value sends nothing and still counts as success.
int write_unbuffered(FILE* driver, const request_line& line) {
    const int refused = setvbuf(driver, nullptr, _IONBF, 0);
    if (refused != 0) {
        perror("tarvo: failed to set _IONBF");
        return std::min(refused, 0);
    }
    return write_line(driver, line);
}

} // namespace

iommu_mapping_t::iommu_mapping_t(int64_t from_pa, int64_t to_pa, int32_t from_dma, int32_t to_dma)
    : start_pa(from_pa), end_pa(to_pa), start_dma(from_dma), end_dma(to_dma) {
    TARVO_ASSERT_AT(same_length(*this), "end_dma - start_dma == end_pa - start_pa", "tarvo", 62,
                    "iommu_mapping_t::iommu_mapping_t(int64_t, int64_t, int32_t, int32_t)");
}

int tarvo_iommu_act(const char* op, unsigned domain, unsigned bus, unsigned devfn, unsigned prot,
                    iommu_mapping_t* mapping) {
    FILE* driver = open_stream(paths::iommu_driver, "we");
    if (driver == nullptr) {
        perror("tarvo: failed to open sysfs file");
        return -1;
    }
    const request_line line = {op,
                               static_cast<int>(domain),
                               static_cast<int>(bus),
                               static_cast<int>(devfn),
                               static_cast<unsigned long long>(mapping->start_pa),
                               static_cast<unsigned long long>(mapping->end_pa) - 1,
                               static_cast<uint32_t>(mapping->start_dma),
                               static_cast<int>(prot)};
    const int result = write_unbuffered(driver, line);
    if (fclose(driver) != 0) {
        perror("tarvo: fclose failed");
    }
    return result;
}
