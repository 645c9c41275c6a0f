#include "FHPathAnalysis/Support/CompareAdditions.h"

#include "Platform/Strings.h"

namespace CompareAdditions {

std::strong_ordering _numericCompare(std::string_view receiver, std::string_view other) {
    return platform::str::numericCompare(receiver, other) <=> 0;
}

}  // namespace CompareAdditions
