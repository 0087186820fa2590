#include "command_line.hpp"
#include "process/report.hpp"

#include <exception>

int main(int argc, char** argv) {
    try {
        sandbox::parse_command_line({argv + 1, argv + argc})();
    } catch (const std::exception& wrong) {
        return sandbox::report(wrong);
    }
    return 0;
}
