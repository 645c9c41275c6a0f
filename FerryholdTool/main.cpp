// ferryhold: what on a volume belongs to its users, the children of a folder, sizes,
// space in use, and the test of items against the incompatible-applications list.
// See ferryhold.1.
//
// Prints one XML property list (or JSON with --json) on standard output. Standard
// output is pointed at standard error while the analysis runs, so nothing it prints
// can spoil the document. Exit statuses: 0 printed; 1 the analysis yields nothing (one
// line on standard error, nothing on standard output); 2 a wrong call (the usage on
// standard error).
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "FerryholdTool/Commands.h"
#include "FerryholdTool/Invocation.h"
#include "FerryholdTool/JSONWriter.h"
#include "Platform/PropertyList.h"
#include "Platform/StandardStreams.h"

namespace {

constexpr int kPrinted = 0;
constexpr int kNothing = 1;
constexpr int kWrongCall = 2;

// Runs the call with standard output diverted to standard error; false when standard
// output could not be diverted or given back.
bool runDiverted(const ferryhold::Invocation& call, ferryhold::Outcome& outcome) {
    platform::Error error;
    auto diversion = platform::DivertedStandardOutput::begin(&error);
    if (!diversion) {
        fprintf(stderr, "ferryhold: cannot divert standard output: %s\n", strerror(int(error.code)));
        return false;
    }
    outcome = ferryhold::run(call);
    if (diversion->restore(&error)) return true;
    fprintf(stderr, "ferryhold: cannot restore standard output: %s\n", strerror(int(error.code)));
    return false;
}

int ferryholdMain(int argc, char** argv) {
    std::string problem;
    auto call = ferryhold::Invocation::parse(std::vector<std::string>(argv + 1, argv + argc), &problem);
    if (!call) {
        fprintf(stderr, "ferryhold: %s\n%s", problem.c_str(), ferryhold::usage());
        return kWrongCall;
    }
    if (call->help) {
        fputs(ferryhold::usage(), stdout);
        return kPrinted;
    }
    ferryhold::Outcome outcome;
    if (!runDiverted(*call, outcome)) return kNothing;
    if (!outcome.document) {
        fprintf(stderr, "ferryhold: %s\n", outcome.failure.c_str());
        return kNothing;
    }
    std::string text = call->json ? ferryhold::JSONWriter::write(*outcome.document)
                                  : platform::plist::toXML(*outcome.document);
    fwrite(text.data(), 1, text.size(), stdout);
    return fflush(stdout) == 0 ? kPrinted : kNothing;
}

}  // namespace

int main(int argc, char** argv) { return ferryholdMain(argc, argv); }
