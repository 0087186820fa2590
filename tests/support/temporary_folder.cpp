#include "temporary_folder.hpp"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>

temporary_folder::temporary_folder() {
    std::string path = std::filesystem::temp_directory_path() / "tarvo-test-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        throw std::runtime_error("no temporary folder like " + path);
    }
    _path = path;
}

temporary_folder::~temporary_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
}
