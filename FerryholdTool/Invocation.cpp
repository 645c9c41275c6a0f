#include "FerryholdTool/Invocation.h"

#include <algorithm>
#include <map>

namespace ferryhold {

namespace {

// What each subcommand takes: its positional arguments (a trailing "..." one may
// repeat, at least once) and its options.
struct Grammar {
    std::vector<std::string> positionals;
    std::vector<std::string> options;
};

const std::map<std::string, Grammar>& grammars() {
    static const std::map<std::string, Grammar> table{
        {"user-paths", {{"ROOT"}, {"--parent", "--omit", "--include", "--expand-bundles"}}},
        {"children", {{"ROOT", "FOLDER"}, {"--omit", "--keep-system", "--expand-bundles"}}},
        {"incompatible", {{"ROOT", "LIST", "PATH..."}, {}}},
        {"size", {{"ROOT", "PATH..."}, {}}},
        {"usage", {{"ROOT"}, {}}},
    };
    return table;
}

bool takesValue(const std::string& option) {
    return option == "--parent" || option == "--omit" || option == "--include";
}

bool allowed(const Grammar& grammar, const std::string& option) {
    return option == "--json" ||
           std::find(grammar.options.begin(), grammar.options.end(), option) != grammar.options.end();
}

void apply(Invocation& call, const std::string& option, const std::string& value) {
    if (option == "--parent") call.parent = value;
    if (option == "--omit") call.omit.push_back(value);
    if (option == "--include") call.include.push_back(value);
    if (option == "--expand-bundles") call.expandBundles = true;
    if (option == "--keep-system") call.keepSystem = true;
    if (option == "--json") call.json = true;
}

bool countFits(const Grammar& grammar, size_t count) {
    const auto& wanted = grammar.positionals;
    bool repeats = !wanted.empty() && wanted.back().ends_with("...");
    return repeats ? count >= wanted.size() : count == wanted.size();
}

}  // namespace

std::optional<Invocation> Invocation::parse(const std::vector<std::string>& argv, std::string* problem) {
    Invocation call;
    if (argv.size() == 1 && (argv[0] == "--help" || argv[0] == "-h")) {
        call.help = true;
        return call;
    }
    if (argv.empty()) {
        *problem = "no command given";
        return std::nullopt;
    }
    call.command = argv[0];
    auto grammar = grammars().find(call.command);
    if (grammar == grammars().end()) {
        *problem = "unknown command '" + call.command + "'";
        return std::nullopt;
    }
    bool optionsEnded = false;
    for (size_t i = 1; i < argv.size(); ++i) {
        const std::string& word = argv[i];
        if (optionsEnded || !word.starts_with("--")) {
            call.arguments.push_back(word);
        } else if (word == "--") {
            optionsEnded = true;
        } else if (!allowed(grammar->second, word)) {
            *problem = "unknown option '" + word + "' for " + call.command;
            return std::nullopt;
        } else if (takesValue(word) && i + 1 == argv.size()) {
            *problem = "option '" + word + "' needs a value";
            return std::nullopt;
        } else {
            apply(call, word, takesValue(word) ? argv[++i] : std::string());
        }
    }
    if (!countFits(grammar->second, call.arguments.size())) {
        *problem = "wrong number of arguments for " + call.command;
        return std::nullopt;
    }
    if (!call.include.empty() && call.expandBundles) {
        *problem = "--include cannot be combined with --expand-bundles";
        return std::nullopt;
    }
    return call;
}

const char* usage() {
    return "usage: ferryhold user-paths ROOT [--parent DIR] [--omit PATH]... [--include PATH]... [--expand-bundles]\n"
           "       ferryhold children ROOT FOLDER [--omit PATH]... [--keep-system] [--expand-bundles]\n"
           "       ferryhold incompatible ROOT LIST PATH...\n"
           "       ferryhold size ROOT PATH...\n"
           "       ferryhold usage ROOT\n"
           "Every command takes --json to print JSON instead of an XML property list.\n";
}

}  // namespace ferryhold
