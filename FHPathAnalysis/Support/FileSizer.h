// How many bytes paths occupy on disk. A directory counts the allocated sizes of every
// non-directory item below it, read in batches through the platform's bulk catalogue
// iteration; a plain file given directly counts its logical size.
//
// One process-wide run flag and lock: sizeForPath sets the flag, cancel clears it from
// any thread, and walks stop at their next item once it is clear.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class FileSizer {
public:
    FileSizer() = delete;

    // Bytes `path` occupies: for a directory its allocated size below it, for anything
    // else its logical size; 0 when it cannot be read. Serialised by the sizer lock.
    static uint64_t sizeForPath(const std::string& path);
    // The sum of sizeForPath over `paths`, each joined below `volume` when one is given;
    // stops after the path during which the computation was cancelled.
    static uint64_t sizeForPaths(const std::vector<std::string>& paths);
    static uint64_t sizeForPaths(const std::vector<std::string>& paths, const std::optional<std::string>& volume);
    // The allocated size below a directory, or the logical size of anything else;
    // nullopt for an empty path or an item that cannot be read. Walks nothing while the
    // run flag is clear, so it answers 0 for a directory before any sizeForPath.
    static std::optional<uint64_t> directorySizeAtPath(const std::string& path);
    // Stops the computation in progress; the next sizeForPath runs in full.
    static void cancel();
};
