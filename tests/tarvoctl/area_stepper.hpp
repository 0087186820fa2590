#pragma once

#include "client.hpp"

#include <filesystem>
#include <functional>
#include <string_view>
#include <sys/types.h>

/// Runs a client one machine instruction at a time while it holds the cross-process lock, which is
/// when it changes the area.
class area_stepper {
  public:
    /// What to do with the client after an instruction.
    enum class verdict { go_on, kill };

    /// `lock_file`: the one the client uses, as seen from outside.
    area_stepper(client& stepped, const std::filesystem::path& lock_file);
    ~area_stepper();
    area_stepper(const area_stepper&) = delete;
    area_stepper& operator=(const area_stepper&) = delete;

    /// Sends the command and asks `after` after every instruction, from the taking of the lock to
    /// its release. False when the client was killed; otherwise its reply is still to be read.
    /// Throws what goes wrong with the stepping itself.
    bool step(std::string_view command, const std::function<verdict()>& after);

  private:
    void run_until_it_has_the_lock() const;
    bool has_released_the_lock() const;

    client& _client;
    pid_t _pid;
    int _lock;
};
