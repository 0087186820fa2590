#include "texts.hpp"

#include "pattern.hpp"
#include "process.hpp"

#include <csignal>
#include <sstream>

namespace {

/// The compiler of the tests is that of the library.
std::string as_compiled(std::string_view signature) {
#ifdef __clang__
    static const pattern star(R"((\w)\* ?)");
    return star.replaced_in(signature, "$1 *");
#else
    return std::string(signature);
#endif
}

std::string failed(std::string_view expression) {
    return ": Assertion `" + std::string(expression) + "' failed.\n";
}

} // namespace

std::string assertion(std::string_view signature, std::string_view expression) {
    return "tarvo-client: tarvo:LINE: " + as_compiled(signature) + failed(expression);
}

std::string container_assertion(int line, std::string_view expression) {
    return "tarvo-client: ./ArrayBackedList.hpp:" + std::to_string(line) + ": SIGNATURE" +
           failed(expression);
}

std::string traced(int level, std::string_view function, std::string_view text) {
    std::ostringstream record;
    record << "[tarvo:" << level << "] tarvo:LINE " << function << ": " << text << "\n";
    return record.str();
}

std::string no_region_at_all() {
    return "tarvo: failed to open /proc/tarvo\n: No such file or directory\n"
           "tarvo_init: no DMA memory found\nSIMULATION_VMID environ variable probably missing\n"
           "tarvo: failed to initialize library\n";
}

std::string aborted(std::string_view last_words) {
    return shown(ended_by(SIGABRT)) + "\n" + std::string(last_words);
}

std::string hex(uint64_t number) {
    std::ostringstream text;
    text << std::hex << number;
    return text.str();
}
