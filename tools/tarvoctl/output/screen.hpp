#pragma once

namespace tarvoctl {

/// What standard output is shown on.
struct screen {
    int width;   ///< columns; 80 where it is not a terminal
    bool colour; ///< a terminal, and NO_COLOR is not set
    bool blocks; ///< block letters can be shown: the locale is UTF-8
};

screen standard_screen();

} // namespace tarvoctl
