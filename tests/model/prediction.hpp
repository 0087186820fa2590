#pragma once

#include "library_model.hpp"
#include "script.hpp"

#include <string>
#include <vector>

namespace model {

/// What a step brings about, as far as it shows outside of the shared area.
struct outcome {
    std::string reply;
    int signal = 0;                  ///< that ends the client, which then does not reply
    std::string error_text;          ///< added to the client's standard error
    std::vector<std::string> events; ///< what the driver was asked

    bool operator==(const outcome&) const = default;
};

/// The machine and its processes, as they are to be after each step.
class prediction {
  public:
    explicit prediction(const playground& where);

    /// Whether the step means anything now: what it names is there, it does not wait for a lock for
    /// ever, and it does not lead where the library itself never returns from.
    bool is_applicable(const step& one) const;

    /// Only for a step that is applicable.
    outcome carry_out(const step& one);

    const machine_state& machine() const { return _machine; }
    const process_state& process(int number) const {
        return _processes.at(static_cast<size_t>(number));
    }
    int process_count() const { return static_cast<int>(_processes.size()); }

  private:
    bool waits_for_ever(const step& one) const;
    void end_process(int number);
    std::string reply_of_client(const step& one, outcome& result);

    machine_state _machine;
    std::vector<process_state> _processes;
};

} // namespace model
