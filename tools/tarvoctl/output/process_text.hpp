#pragma once

#include "host/mappings.hpp"
#include "host/processes.hpp"
#include "output/json.hpp"

#include <map>
#include <string>
#include <vector>

namespace tarvoctl {

/// What is known of processes, each looked up once.
class process_table {
  public:
    /// Of one that has ended meanwhile only its number is known.
    const process_info& of(pid_t pid);
    /// "4711 (my_driver)", or "4711" of one that is gone.
    std::string text(pid_t pid);

  private:
    std::map<pid_t, process_info> _known;
};

/// "running", "sleeping", "STOPPED".
std::string state_text(char state);

/// When a process began, such as "2024-05-31T02:13:07+02:00"; "-" where it is unknown.
std::string start_text(const process_info& process);

/// "4711 (my_driver), 4712 (agent) and 3 more"
std::string processes_text(const std::vector<pid_t>& pids, process_table& processes);

/// " that can be seen" where not all can: to be put after "nobody" or "no process".
const char* seen_only_text(const mapped_memory& memory);

/// What of the mappings could not be seen, and what helps; empty when all was seen.
std::string unseen_text(const mapped_memory& memory, process_table& processes);

/// {"pid": 4711, "command": "my_driver", "user": "root"}
json json_process(const process_info& process);
json json_unseen(const mapped_memory& memory);

} // namespace tarvoctl
