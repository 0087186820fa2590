#include "driver/request.hpp"

#include "common/numbers.hpp"
#include "driver/text.hpp"

namespace sandbox {

namespace {

/// The words of a line that ends in a newline; empty where it does not.
std::vector<std::string_view> words(std::string_view line) {
    if (!line.ends_with('\n')) {
        return {};
    }
    line.remove_suffix(1);
    return split(line, ' ');
}

std::optional<operation> iommu_operation(std::string_view word) {
    if (word == "map") {
        return operation::map;
    }
    if (word == "unmap") {
        return operation::unmap;
    }
    return std::nullopt;
}

/// The library prints these unsigned numbers as signed ones.
std::optional<uint32_t> signed_field(std::string_view word) {
    const auto value = number_in<int32_t>(word);
    if (!value) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(*value);
}

/// OP DOMAIN BUS DEVFN STARTPA ENDPA STARTDMA PROT
std::optional<request> parse_iommu_request(std::string_view line) {
    const auto fields = words(line);
    if (fields.size() != 8) {
        return std::nullopt;
    }
    const auto op = iommu_operation(fields[0]);
    const auto domain = signed_field(fields[1]);
    const auto bus = signed_field(fields[2]);
    const auto devfn = signed_field(fields[3]);
    const auto start_pa = number_in<uint64_t>(fields[4]);
    const auto end_pa = number_in<uint64_t>(fields[5]);
    const auto start_dma = number_in<uint32_t>(fields[6]);
    const auto prot = number_in<int32_t>(fields[7]);
    if (!op || !domain || !bus || !devfn || !start_pa || !end_pa || !start_dma || !prot) {
        return std::nullopt;
    }
    return request{*op, {*domain, *bus, *devfn}, *start_pa, *end_pa, *start_dma, {}, 0};
}

std::optional<operation> cma_operation(std::string_view word) {
    if (word == "a") {
        return operation::allocate;
    }
    if (word == "r") {
        return operation::release;
    }
    return std::nullopt;
}

bool is_cma_name(std::string_view word) {
    constexpr std::string_view ends_a_field{"\0\t\n\v\f\r", 6};
    return !word.empty() && word.find_first_of(ends_a_field) == std::string_view::npos;
}

/// OP NAME SIZE, the size in hexadecimal without prefix
std::optional<request> parse_cma_command(std::string_view line) {
    const auto fields = words(line);
    if (fields.size() != 3) {
        return std::nullopt;
    }
    const auto op = cma_operation(fields[0]);
    const auto size_bytes = number_in<uint64_t>(fields[2], 16);
    if (!op || !is_cma_name(fields[1]) || !size_bytes || *size_bytes == 0) {
        return std::nullopt;
    }
    return request{*op, {}, 0, 0, 0, std::string{fields[1]}, *size_bytes};
}

} // namespace

std::optional<request> parse_request(driver_file file, std::string_view line) {
    return file == driver_file::sysfs ? parse_iommu_request(line) : parse_cma_command(line);
}

} // namespace sandbox
