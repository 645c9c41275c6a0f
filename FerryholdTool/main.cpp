// ferryhold: what on a volume belongs to its users, the children of a folder, sizes,
// space in use, and the test of items against the incompatible-applications list.
// See ferryhold.1.
//
// Prints one XML property list (or JSON with --json) on standard output. Standard
// output is pointed at standard error while the analysis runs, so nothing it prints
// can spoil the document. Exit statuses: 0 printed; 1 the analysis yields nothing (one
// line on standard error, nothing on standard output) or the document could not be
// written; 2 a wrong call.
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <string>
#include <vector>

#include "CommandLine/Json.h"
#include "CommandLine/StandardOutput.h"
#include "CommandLine/Text.h"
#include "FerryholdTool/Commands.h"
#include "FerryholdTool/Invocation.h"
#include "Platform/PropertyList.h"
#include "Platform/StandardStreams.h"

namespace {

constexpr int kPrinted = 0;
constexpr int kNothing = 1;

// Runs the call with standard output diverted to standard error; false when standard
// output could not be diverted or given back.
bool runDiverted(const ferryhold::Invocation& call, ferryhold::Outcome& outcome) {
    platform::Error error;
    auto diversion = platform::DivertedStandardOutput::begin(&error);
    if (!diversion) {
        fmt::print(stderr, "ferryhold: cannot divert standard output: {}\n", strerror(int(error.code)));
        return false;
    }
    outcome = ferryhold::run(call);
    if (diversion->restore(&error)) return true;
    fmt::print(stderr, "ferryhold: cannot restore standard output: {}\n", strerror(int(error.code)));
    return false;
}

int answer(const ferryhold::Invocation& call) {
    ferryhold::Outcome outcome;
    if (!runDiverted(call, outcome)) return kNothing;
    if (!outcome.document) {
        fmt::print(stderr, "ferryhold: {}\n", commandline::escapedText(outcome.failure));
        return kNothing;
    }
    // Property-list readers and JSON parsers refuse bytes that are not UTF-8: such a
    // path is written with U+FFFD, and said so once.
    std::vector<std::string> damaged;
    platform::Value document = commandline::sanitizedStrings(*outcome.document, &damaged);
    for (const auto& text : damaged)
        fmt::print(stderr, "ferryhold: warning: {}: not valid UTF-8, written with U+FFFD\n",
                   commandline::escapedText(text));
    commandline::out(call.json ? commandline::toJson(document).dump(2) + "\n" : platform::plist::toXML(document));
    return kPrinted;
}

}  // namespace

int main(int argc, char** argv) {
    ferryhold::Invocation call;
    auto app = ferryhold::makeApp(call, answer);
    int status = 0;
    auto action = commandline::parse(*app, argc, argv, &status);
    if (!action) return status;
    return commandline::StandardOutput::shared().finish((*action)(), "ferryhold");
}
