#include "CommandLine/Parser.h"

#include <fmt/format.h>

#include "CommandLine/StandardOutput.h"
#include "Platform/Log.h"

#include <cstdlib>

#ifndef FERRYHOLD_VERSION
#error "FERRYHOLD_VERSION comes from the project's version in CMake"
#endif

namespace commandline {

namespace {

struct Verbosity {
    bool quiet = false, verbose = false;
};

Verbosity& verbosity() {
    static Verbosity flags;
    return flags;
}

// The libraries' debug switches that -v turns on.
constexpr const char* kDebugSwitches[] = {"FHDebugFileSizer", "CWDebugURLConnection"};

void applyVerbosity() {
    // The system log still receives every line; only the copy on standard error goes.
    if (verbosity().quiet) platform::setConsoleSink([](std::string_view) {});
    if (verbosity().verbose)
        for (const char* name : kDebugSwitches) setenv(name, "1", 0);
}

Action& chosen() {
    static Action action;
    return action;
}

// The innermost command the words reached, the one whose usage a wrong call shows.
CLI::App* innermost(CLI::App* app) {
    for (;;) {
        auto parsed = app->get_subcommands();
        if (parsed.empty()) return app;
        app = parsed.back();
    }
}

std::string fullName(CLI::App* app) {
    std::string name = app->get_name();
    for (CLI::App* parent = app->get_parent(); parent; parent = parent->get_parent())
        name = parent->get_name() + " " + name;
    return name;
}

// The help of one command, its usage line naming the whole command.
std::string helpOf(CLI::App* app) {
    return app->get_parent() ? app->help(fullName(app->get_parent())) : app->help();
}

// Positionals are named by their own word in the help, without CLI11's type label.
void tidyHelp(CLI::App* app) {
    for (CLI::Option* option : app->get_options())
        if (option->get_positional()) option->type_name("");
    for (CLI::App* command : app->get_subcommands([](CLI::App*) { return true; })) tidyHelp(command);
}

void configure(CLI::App& app) {
    app.fallthrough();
    app.allow_windows_style_options(false);
}

}  // namespace

std::unique_ptr<CLI::App> makeApp(const std::string& program, const std::string& description) {
    auto app = std::make_unique<CLI::App>(description, program);
    configure(*app);
    app->set_version_flag("--version", program + " " FERRYHOLD_VERSION, "Print the version and exit");
    app->set_help_flag("-h,--help", "Print this help and exit");
    auto* quiet = app->add_flag("-q,--quiet", verbosity().quiet, "No console lines from the libraries on standard error");
    app->add_flag("-v,--verbose", verbosity().verbose, "Add the libraries' debug output on standard error")
        ->excludes(quiet);
    app->require_subcommand(1);
    return app;
}

CLI::App* addCommand(CLI::App& parent, const std::string& name, const std::string& description) {
    CLI::App* command = parent.add_subcommand(name, description);
    configure(*command);
    return command;
}

std::string nonEmpty(const std::string& value) { return value.empty() ? "must not be empty" : ""; }

void onRun(CLI::App* command, Action action) {
    command->callback([action = std::move(action)] { chosen() = action; });
}

int wrongCall(CLI::App* command, const std::string& message) {
    fmt::print(stderr, "{}: {}\n{}", fullName(command), message, helpOf(command));
    return kWrongCallStatus;
}

std::optional<Action> parse(CLI::App& app, int argc, char** argv, int* status) {
    tidyHelp(&app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        StandardOutput::shared().write(app.help());
        *status = StandardOutput::shared().finish(0, app.get_name());
        return std::nullopt;
    } catch (const CLI::CallForAllHelp&) {
        StandardOutput::shared().write(app.help("", CLI::AppFormatMode::All));
        *status = StandardOutput::shared().finish(0, app.get_name());
        return std::nullopt;
    } catch (const CLI::CallForVersion& version) {
        StandardOutput::shared().line(version.what());
        *status = StandardOutput::shared().finish(0, app.get_name());
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        CLI::App* command = innermost(&app);
        std::string name = fullName(command);
        std::string message = error.what();
        // CLI11 takes an unknown command word for a missing one.
        auto left = app.remaining(true);
        if (!left.empty() && !command->get_subcommands([](CLI::App*) { return true; }).empty() &&
            command->get_subcommands().empty())
            message = "unknown command '" + left.front() + "'";
        fmt::print(stderr, "{}: {}\n{}", name, message, helpOf(command));
        *status = kWrongCallStatus;
        return std::nullopt;
    }
    if (!chosen()) {
        // A command with subcommands of its own was named without one.
        CLI::App* command = innermost(&app);
        std::string name = fullName(command);
        fmt::print(stderr, "{}: a subcommand is required\n{}", name, helpOf(command));
        *status = kWrongCallStatus;
        return std::nullopt;
    }
    applyVerbosity();
    return chosen();
}

}  // namespace commandline
