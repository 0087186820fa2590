#pragma once

#include "driver/driver.hpp"
#include "machine/file_system.hpp"
#include "machine/proc_view.hpp"
#include "machine/world.hpp"
#include "process/channel.hpp"
#include "process/control.hpp"
#include "process/namespaces.hpp"

#include <list>

namespace sandbox {

/// Everything the sandbox's own process needs, made by the tool before it starts that process.
struct server_plan {
    world chosen;
    std::vector<rule> rules;
    unique_fd log;
    control_socket control;
    /// The tool's own connection: the first command comes through it.
    unique_fd first_connection;
};

/// The process of a sandbox: answers the driver's files, admits commands, takes rules, and
/// ends with the last command. One thread, so that the log has one order.
class server {
  public:
    /// Takes what it needs out of the plan, the connection last. Throws trouble.
    explicit server(server_plan& plan);

    /// Returns when the last command has ended and everything is gone.
    void run();

  private:
    /// A tool at the other end, and the command it has in the sandbox, if any.
    struct connection {
        unique_fd socket;
        unique_fd command;
        /// The sandbox goes on as long as there is a command, or the first one has yet to come.
        bool keeps_alive = false;
        bool command_ended = false;
        /// By the tool. Our end stays open: its close shows the tool that we are done.
        bool closed = false;
    };
    using connections = std::list<connection>;

    bool is_in_use() const;
    void wait_and_answer();
    void remove_ended();
    void accept_connection();
    void receive_from(connection& from);
    static void end_command(connection& of);
    void answer(connection& from, message& received);
    void admit(connection& from, message& received);
    nlohmann::json change_rules(const nlohmann::json& wanted);

    world _world;
    driver _driver;
    control_socket& _control;
    bool _accepts = false;
    proc_view _real_proc;
    sysfs_view _real_sysfs;
    unique_fd _real_proc_mount;
    namespaces _namespaces;
    file_system _files;
    connections _connections;
};

/// The whole life of the sandbox's own process. Failures are reported to the first connection.
void serve(server_plan plan);

} // namespace sandbox
