#pragma once

#include <filesystem>

/// A folder that is removed with all it holds.
class temporary_folder {
  public:
    temporary_folder();
    ~temporary_folder();
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;

    const std::filesystem::path& path() const { return _path; }

  private:
    std::filesystem::path _path;
};
