#pragma once

#include "tool.hpp"

#include <string>
#include <termios.h>
#include <vector>

/// A pseudo terminal that tarvoctl is started on, seen from the side of the person at it.
class terminal {
  public:
    terminal(unsigned short rows, unsigned short columns);
    ~terminal();
    terminal(const terminal&) = delete;
    terminal& operator=(const terminal&) = delete;

    /// Its standard input and output are the terminal; signals by keys do not reach it.
    running_tool start(sandbox& machine, const std::vector<std::string>& words) const;

    /// By which programs open it.
    std::string name() const;

    void resize(unsigned short rows, unsigned short columns) const;
    void type(const std::string& keys) const;
    /// Takes no output until it is to again, as by Ctrl-S and Ctrl-Q.
    void stop_output() const;
    void go_on() const;

    /// All that was written to it, once that holds `wanted` after its byte `from`.
    const std::string& output_with(const std::string& wanted, size_t from = 0);
    size_t seen() const { return _output.size(); }

    /// How it treats keys now.
    termios mode() const;

  private:
    void receive(const std::string& wanted);

    int _person = -1;
    int _program = -1; ///< held open: it can be asked when the program is gone
    std::string _output;
};
