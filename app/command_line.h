// SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
//
// How a verb says which options and words it takes. This is all that the program knows of the
// library that reads the command line, whose headers take longer to compile than all else: one
// source file includes them.
#pragma once

#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace app {

/// What the user asked for cannot be had. what() is one line that says what and where.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// What a verb takes. Each call adds one option, whose variable has to stay where it is, keeps its
/// value where the option is not given, and gets one that was checked where it is. `type` is the
/// word for the value in the list of options; `help` may have several lines.
class CommandLine {
  public:
    struct Parts;
    explicit CommandLine(Parts& parts) : parts_(parts) {}

    void flag(const std::string& name, bool& value, const std::string& help);
    void text(const std::string& name, std::string& value, const std::string& type,
              const std::string& help);
    /// May be given several times.
    void texts(const std::string& name, std::vector<std::string>& values, const std::string& type,
               const std::string& help);
    void choice(const std::string& name, std::string& value,
                const std::vector<std::string>& choices, const std::string& help);
    void number(const std::string& name, int& value, int least, int most, const std::string& help);
    /// A duration above 0, of thirty years at most.
    void seconds(const std::string& name, double& value, const std::string& help);
    /// A word without an option in front of it, which has to be there.
    void word(const std::string& name, std::string& value, const std::string& help);
    /// One that may be missing.
    void optional_word(const std::string& name, std::string& value, const std::string& help);
    /// Any number of words.
    void words(const std::string& name, std::vector<std::string>& values, const std::string& help);

    /// What stands below the list of options.
    void footer(const std::string& text);

  private:
    Parts& parts_;
};

/// What a verb does once the command line has been read; its result is the exit status.
using Action = std::function<int()>;

/// Declares a verb's options and says what it does.
using DeclareVerb = Action(CommandLine& line);

struct Verb {
    const char* name;
    const char* help;
    DeclareVerb* declare;
};

/// Reads the command line and performs its verb; the result is the exit status. Help is printed
/// where it is asked for. Throws UsageError for a line that is not understood.
int perform_command_line(int argc, char** argv, std::span<const Verb> verbs);

}  // namespace app
