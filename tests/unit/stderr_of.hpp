#pragma once

#include <cstdio>
#include <string>
#include <unistd.h>

/// What `action` writes to standard error.
template <typename Action>
std::string stderr_of(const Action& action) {
    std::FILE* file = std::tmpfile();
    const int kept = dup(STDERR_FILENO);
    dup2(fileno(file), STDERR_FILENO);
    action();
    dup2(kept, STDERR_FILENO);
    close(kept);
    std::rewind(file);
    std::string text;
    for (int letter = std::fgetc(file); letter != EOF; letter = std::fgetc(file)) {
        text += static_cast<char>(letter);
    }
    std::fclose(file);
    return text;
}
