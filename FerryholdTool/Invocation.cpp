#include "FerryholdTool/Invocation.h"

namespace ferryhold {

namespace {

using Answer = std::function<int(const Invocation&)>;

// Positionals after ROOT go on into `call.arguments`.
struct Positionals {
    std::string root;
    std::vector<std::string> rest;
};

void addRoot(CLI::App* command, Positionals& positionals) {
    command->add_option("ROOT", positionals.root, "The volume's root directory (an absolute path)")->required();
}

CLI::App* addQuery(CLI::App& app, Invocation& call, const Answer& answer, const std::string& name,
                   const std::string& description, std::function<void(CLI::App*, Positionals&)> more) {
    CLI::App* command = commandline::addCommand(app, name, description);
    auto positionals = std::make_shared<Positionals>();
    addRoot(command, *positionals);
    more(command, *positionals);
    commandline::onRun(command, [command, positionals, &call, answer, name] {
        call.command = name;
        if (call.listLists) return answer(call);
        if (name == "incompatible" && positionals->rest.size() < 2)
            return commandline::wrongCall(command, "ROOT, LIST and at least one PATH are required");
        if (!positionals->root.starts_with("/"))
            return commandline::wrongCall(command, "ROOT must be an absolute path");
        call.arguments = {positionals->root};
        call.arguments.insert(call.arguments.end(), positionals->rest.begin(), positionals->rest.end());
        return answer(call);
    });
    return command;
}

}  // namespace

std::unique_ptr<CLI::App> makeApp(Invocation& call, std::function<int(const Invocation&)> answer) {
    auto app = commandline::makeApp(
        "ferryhold", "Answers what an installer asks about a volume, as one XML property list (or JSON).");
    app->add_flag("--json", call.json, "Print JSON instead of an XML property list");

    addQuery(*app, call, answer, "user-paths", "The topmost paths that belong to the users",
             [&call](CLI::App* command, Positionals&) {
                 command->add_option("--parent", call.parent, "Only paths below this folder")->type_name("DIR");
                 command->add_option("--omit", call.omit, "Leave this path out (repeatable)")
                     ->type_name("PATH")
                     ->allow_extra_args(false);
                 auto* include = command->add_option("--include", call.include, "Keep this path whole (repeatable)")
                                     ->type_name("PATH")
                                     ->allow_extra_args(false);
                 command->add_flag("--expand-bundles", call.expandBundles, "Look inside kept bundles")
                     ->excludes(include);
             });
    addQuery(*app, call, answer, "children", "A folder's user paths",
             [&call](CLI::App* command, Positionals& positionals) {
                 command->add_option("FOLDER", positionals.rest, "The folder, relative to ROOT")
                     ->required()
                     ->expected(1);
                 command->add_option("--omit", call.omit, "Leave this path out (repeatable)")
                     ->type_name("PATH")
                     ->allow_extra_args(false);
                 command->add_flag("--keep-system", call.keepSystem, "A plain listing: system paths too");
                 command->add_flag("--expand-bundles", call.expandBundles, "Look inside bundles");
             });
    CLI::App* incompatible = addQuery(
        *app, call, answer, "incompatible", "Tests paths against a list of the framework bundle",
        [&call](CLI::App* command, Positionals& positionals) {
            command->add_option("LIST", positionals.rest, "The list's name, then the paths to test")
                ->expected(0, CLI::detail::expected_max_vector_size);
            command->add_flag("--lists", call.listLists, "Name the lists the framework bundle holds");
        });
    // --lists needs no volume; LIST and PATH are needed without it.
    incompatible->get_option("ROOT")->required(false);
    addQuery(*app, call, answer, "size", "Each path's size on disk and their total",
             [](CLI::App* command, Positionals& positionals) {
                 command->add_option("PATH", positionals.rest, "Volume paths")->required();
             });
    addQuery(*app, call, answer, "usage", "The used and free bytes of the volume", [](CLI::App*, Positionals&) {});
    // volumes reads the machine's mount table (or FERRYHOLD_MOUNTINFO's), not one ROOT.
    CLI::App* volumes =
        commandline::addCommand(*app, "volumes", "The volumes an installation may target, grouped by disk");
    volumes->add_option("--target", call.target, "The release to be installed: reapable sizes and versions judged")
        ->type_name("VERSION")
        ->check(commandline::nonEmpty);
    volumes->add_option("--required-size", call.requiredSize, "Bytes the installation needs")->type_name("BYTES");
    commandline::onRun(volumes, [&call, answer] {
        call.command = "volumes";
        return answer(call);
    });
    return app;
}

}  // namespace ferryhold
