// A program that declares the exported text itself, with the linkage that its test names. Where the
// linker moves the text into the program, it is still the one that the library has filled.

#include <cstdio>
#include <memory>
#include <string>

LINKAGE std::shared_ptr<std::string> to_string_err;

int main() {
    if (to_string_err == nullptr || *to_string_err != "Error formatting string") {
        std::printf("to_string_err is not its text\n");
        return 1;
    }
    return 0;
}
