// The subcommands of the ferryhold command, each answering one document.
#pragma once

#include <optional>
#include <string>

#include "FerryholdTool/Invocation.h"
#include "Platform/Value.h"

namespace ferryhold {

struct Outcome {
    std::optional<platform::Value> document;  // absent when the analysis yields nothing
    std::string failure;                      // then: one line saying why
};

// Runs the invocation's subcommand.
Outcome run(const Invocation& call);

}  // namespace ferryhold
