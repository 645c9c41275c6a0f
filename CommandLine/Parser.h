// The command line of both tools: CLI11 apps with one policy for help, --version and
// wrong calls.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace commandline {

// The exit status of a wrong call.
inline constexpr int kWrongCallStatus = 2;

// An app named `program` whose --version prints "PROGRAM VERSION", with -q (no console
// lines from the libraries) and -v (their debug switches on). Options of a parent are
// accepted after its subcommands' words too.
std::unique_ptr<CLI::App> makeApp(const std::string& program, const std::string& description);

// A subcommand of `parent` that shares the tool's conventions (help flag, options of
// the parent accepted after it).
CLI::App* addCommand(CLI::App& parent, const std::string& name, const std::string& description);

// What the chosen (sub)command runs, set when the parse succeeds.
using Action = std::function<int()>;
// Runs `action` when `command` is the one chosen.
void onRun(CLI::App* command, Action action);

// A CLI11 check refusing an empty argument.
std::string nonEmpty(const std::string& value);

// A wrong call found after parsing: one line "COMMAND: MESSAGE", then the command's
// help, on standard error. Answers 2.
int wrongCall(CLI::App* command, const std::string& message);

// Parses argv. Answers the action to run, or sets `status` and answers nothing after
// printing what the call asked for: help on standard output (0), the version (0), or
// one line naming what is wrong and the usage of the command concerned on standard
// error (2).
std::optional<Action> parse(CLI::App& app, int argc, char** argv, int* status);

}  // namespace commandline
