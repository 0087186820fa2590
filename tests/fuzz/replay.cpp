// PROGRAM FILE...: gives each file to the target, once, and prints how many there were. A fault
// ends it. Ends with 2 where a file cannot be read, or there is none.

#include "target.hpp"

#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

int main(int count, char** words) {
    for (int i = 1; i < count; ++i) {
        std::ifstream file(words[i], std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        if (!file.good() && bytes.empty()) {
            std::cerr << words[i] << " cannot be read, or is empty\n";
            return 2;
        }
        try_bytes(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::cout << count - 1 << " files replayed\n";
    return count > 1 ? 0 : 2;
}
