#pragma once

#include "prediction.hpp"
#include "sandbox.hpp"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace model {

/// A sandbox with clients that use the library, ordered what the model is ordered.
class real_machine {
  public:
    explicit real_machine(const playground& where);

    /// `expected_signal`: 0 for a client that is to live. Throws when the client does not do as it
    /// is expected to.
    outcome carry_out(const step& one, int expected_signal);

    /// The shared area file; nothing while there is none.
    std::optional<std::span<const uint8_t>> area();

  private:
    /// A program that uses the library, and what it has mapped.
    struct user {
        explicit user(client started) : program(std::move(started)) {}
        client program;
        size_t error_bytes = 0;                      ///< of its standard error, seen so far
        std::map<std::string, std::string> mappings; ///< addresses, by the names steps give them
        std::string whole_region;                    ///< address
    };

    user& user_of(int number);
    outcome let_end(const step& one, user& ending_one, int expected_signal);
    static std::string call(user& caller, const step& one);
    static std::string map(user& caller, const step& one);
    static std::string map_all(user& caller);
    static std::string unmap(user& caller, const step& one);
    static std::string touch(user& caller, const step& one);
    static std::string new_errors(user& caller);
    std::vector<std::string> new_events();

    ::sandbox _machine;
    std::filesystem::path _log;
    std::vector<std::unique_ptr<user>> _users;
    std::unique_ptr<area_file> _area;
};

/// Standard error as the model predicts it: of assertions without the program's name, and without
/// what the text leaves to the source.
std::string without_what_is_free(const std::string& errors);

} // namespace model
