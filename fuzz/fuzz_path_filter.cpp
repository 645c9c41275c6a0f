// Fuzzes the filter language the analysis builds its path filters in. The input's
// first part is a filter as written; the others are paths as a volume may hold them
// (any bytes but NUL, quotes, backslashes and percent signs included). Each path is
// tested against the filter, and, as the analysis does, pasted into filters of its
// own: names matched with "like", with and without negation, and prefixes.
#include <cstdint>

#include "FHPathAnalysis/PathAnalyzer/FHStringPredicate.h"
#include "FuzzSupport.h"

namespace {

void test(std::string_view text, const std::vector<std::string>& paths) {
    auto filter = FHStringPredicate::predicateWithFormat(text);
    if (!filter) return;
    for (const auto& path : paths) (void)filter->evaluateWithObject(path);
}

std::string lastComponent(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto parts = fuzzsupport::parts(data, size, 9);
    std::string filter = parts.front();
    std::vector<std::string> paths(parts.begin() + 1, parts.end());
    // A volume's paths never hold NUL.
    for (auto& path : paths) std::erase(path, '\0');
    test(filter, paths);
    std::string names;
    for (size_t i = 0; i < paths.size(); ++i) {
        std::string name = lastComponent(paths[i]);
        test("SELF like \"" + name + "\"", paths);
        names += std::string(i ? " OR " : "") + "( ! SELF like \"" + name + "\")";
        test("NOT (SELF BEGINSWITH \"" + paths[i] + "\")", paths);
        test("SELF ENDSWITH \"" + name + "\" && SELF CONTAINS \"/\" || SELF == \"" + paths[i] + "\"", paths);
    }
    test(names, paths);
    return 0;
}
