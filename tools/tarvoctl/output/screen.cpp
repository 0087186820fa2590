#include "output/screen.hpp"

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tarvoctl {

screen standard_screen() {
    constexpr int usual_width = 80;
    screen found{usual_width, false, false};
    std::setlocale(LC_CTYPE, "");
    found.blocks = std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0;
    if (::isatty(STDOUT_FILENO) == 0) {
        return found;
    }
    const char* const refused = std::getenv("NO_COLOR");
    found.colour = refused == nullptr || *refused == '\0';
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        found.width = size.ws_col;
    }
    return found;
}

} // namespace tarvoctl
