#pragma once

#include "common/unique_fd.hpp"

#include <csignal>

namespace tarvoctl {

/// Has a signal call `handler`. A system call that it interrupts ends with EINTR.
void handle_signal(int signal, void (*handler)(int));

/// The handler of a signal that is sent to interrupt a system call.
void do_nothing(int signal);

/// Holds back the signals by which people end a program, as long as it lives; those that came then
/// take effect. What is ignored stays so.
class held_back_signals {
  public:
    held_back_signals();
    ~held_back_signals();
    held_back_signals(const held_back_signals&) = delete;
    held_back_signals& operator=(const held_back_signals&) = delete;

    const sigset_t& held() const { return _held; }
    /// Which were held back before.
    const sigset_t& earlier() const { return _earlier; }

  private:
    sigset_t _held{};
    sigset_t _earlier{};
};

/// The same, for a process that looks what came.
class awaited_signals {
  public:
    awaited_signals();

    /// Readable, for poll(), once a signal has come.
    int descriptor() const { return _arrivals.get(); }
    /// The next one that has come; 0 where there is none.
    int take() const;
    /// In a child: everything is as before.
    void release() const;

  private:
    held_back_signals _held_back;
    unique_fd _arrivals;
};

} // namespace tarvoctl
