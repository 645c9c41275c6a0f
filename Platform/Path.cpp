#include "Platform/Path.h"

#include <cstdlib>

namespace platform::path {

std::string standardize(std::string_view input) {
    std::string path(input);
    if (!path.empty() && path[0] == '~' && (path.size() == 1 || path[1] == '/')) {
        const char* home = getenv("HOME");
        if (home && *home) path = std::string(home) + path.substr(1);
    }
    bool absolute = !path.empty() && path[0] == '/';
    std::vector<std::string> parts;
    size_t i = 0;
    while (i <= path.size()) {
        size_t j = path.find('/', i);
        if (j == std::string::npos) j = path.size();
        std::string part = path.substr(i, j - i);
        if (part.empty() || part == ".") {
        } else if (part == "..") {
            if (!parts.empty() && parts.back() != "..")
                parts.pop_back();
            else if (!absolute)
                parts.push_back(part);
        } else {
            parts.push_back(std::move(part));
        }
        i = j + 1;
    }
    std::string out = absolute ? "/" : "";
    for (size_t k = 0; k < parts.size(); ++k) {
        if (k) out += '/';
        out += parts[k];
    }
    return out;
}

std::string appendComponent(std::string_view base, std::string_view component) {
    std::string joined;
    joined.reserve(base.size() + component.size() + 1);
    joined.append(base);
    if (!base.empty() && !component.empty()) joined += '/';
    joined.append(component);
    std::string out;
    out.reserve(joined.size());
    for (char c : joined)
        if (!(c == '/' && !out.empty() && out.back() == '/')) out += c;
    while (out.size() > 1 && out.back() == '/') out.pop_back();
    return out;
}

namespace {
std::string_view trimTrailingSlashes(std::string_view p) {
    while (p.size() > 1 && p.back() == '/') p.remove_suffix(1);
    return p;
}
}  // namespace

std::string lastComponent(std::string_view path) {
    path = trimTrailingSlashes(path);
    if (path == "/") return "/";
    auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string deletingLastComponent(std::string_view path) {
    path = trimTrailingSlashes(path);
    if (path == "/") return "/";
    auto slash = path.rfind('/');
    if (slash == std::string_view::npos) return "";
    if (slash == 0) return "/";
    return std::string(trimTrailingSlashes(path.substr(0, slash)));
}

std::string extension(std::string_view path) {
    std::string last = lastComponent(path);
    auto dot = last.rfind('.');
    if (dot == std::string::npos || dot == 0) return "";
    return last.substr(dot + 1);
}

std::string deletingExtension(std::string_view path) {
    std::string ext = extension(path);
    std::string trimmed(trimTrailingSlashes(path));
    if (ext.empty()) return trimmed;
    return trimmed.substr(0, trimmed.size() - ext.size() - 1);
}

std::vector<std::string> components(std::string_view path) {
    std::vector<std::string> out;
    if (!path.empty() && path[0] == '/') out.emplace_back("/");
    size_t i = 0;
    while (i < path.size()) {
        size_t j = path.find('/', i);
        if (j == std::string_view::npos) j = path.size();
        if (j > i) out.emplace_back(path.substr(i, j - i));
        i = j + 1;
    }
    return out;
}

std::string prefixForm(std::string_view path) {
    std::string out(path);
    if (out.empty() || out.back() != '/') out += '/';
    return out;
}

bool isInside(std::string_view path, std::string_view directory) {
    std::string prefix = prefixForm(directory);
    return path.size() >= prefix.size() && path.compare(0, prefix.size(), prefix) == 0;
}

std::vector<std::string> parentDirectories(std::string_view path) {
    std::vector<std::string> out;
    std::string current(trimTrailingSlashes(path));
    while (current.size() > 1) {
        current = deletingLastComponent(current);
        if (current.empty()) break;
        out.push_back(current);
    }
    return {out.rbegin(), out.rend()};
}

}  // namespace platform::path
