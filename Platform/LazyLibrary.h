// Loading a shared library the first time one of its functions is needed, rather than
// when a program starts: each library linked directly is mapped and relocated before
// main in every process, including the many that never call it. Used for libcurl, which
// only the tools' network paths need and which brings some forty libraries with it, and
// for libmount and libblkid, which only the volume list and the disk picker need, and for
// libcrypto, which only digests, certificates and signatures need.
//
// A library's table is a struct of function pointers named after the functions without
// their common prefix (or, with an empty prefix, like the functions themselves, where
// they share none), declared and looked up through one list of names: a macro called
// as LIST(X, args...) that writes X(args..., name) for each name.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace platform::detail {

struct LazySymbol {
    const char* name;
    void** slot;  // where the function's address goes
};

// Opens `soname` (kept open for the life of the process) and looks every symbol up; false,
// with the reason in `why`, when the library or any one of them is missing.
bool loadLazyLibrary(const char* soname, const std::vector<LazySymbol>& symbols, std::string* why);

// The process's table of `Table`, loaded by the first caller (the others wait for it):
// `Table::kFileName` names the library and `Table::symbols(table)` lists the lookups that
// fill `table`. Null, with the reason in `why` when given, when it cannot be loaded.
template <typename Table>
const Table* lazyTable(std::string* why = nullptr) {
    static std::string failure;
    static const std::unique_ptr<Table> table = [] {
        auto loaded = std::make_unique<Table>();
        if (!loadLazyLibrary(Table::kFileName, Table::symbols(*loaded), &failure)) loaded.reset();
        return loaded;
    }();
    if (!table && why) *why = failure;
    return table.get();
}

// Where a table that announces its failure keeps the reason.
template <typename Table>
std::string& loadFailureOf() {
    static std::string why;
    return why;
}

// One console line: the library, why it cannot be loaded, and what cannot be done then.
void announceLoadFailure(const char* soname, const std::string& why, const char* consequence);

// lazyTable's table for a library whose absence the process announces: `prepare`, when
// given, runs once on the loaded table and may refuse it (false, the reason in `why`);
// when there is no table, announceLoadFailure says so once, with `consequence`. The
// reason stays in loadFailureOf<Table>().
template <typename Table>
const Table* announcedTable(const char* consequence, bool (*prepare)(const Table&, std::string& why) = nullptr) {
    static const Table* table = [&]() -> const Table* {
        std::string& why = loadFailureOf<Table>();
        const Table* loaded = lazyTable<Table>(&why);
        if (loaded && prepare && !prepare(*loaded, why)) loaded = nullptr;
        if (!loaded) announceLoadFailure(Table::kFileName, why, consequence);
        return loaded;
    }();
    return table;
}

}  // namespace platform::detail

// A pointer member for function PREFIX##NAME, called NAME.
#define FERRYHOLD_LAZY_POINTER(prefix, name) decltype(&::prefix##name) name = nullptr;
// The lookup entry for that member of `table`.
#define FERRYHOLD_LAZY_SYMBOL(table, prefix, name) \
    platform::detail::LazySymbol{#prefix #name, reinterpret_cast<void**>(&(table).name)},
// Declares the table NAME of the functions PREFIX##name, for each name of LIST, of the
// library SONAME, as lazyTable<NAME>() wants it.
#define FERRYHOLD_LAZY_TABLE(NAME, SONAME, LIST, PREFIX)                           \
    struct NAME {                                                                 \
        static constexpr const char* kFileName = SONAME;                          \
        LIST(FERRYHOLD_LAZY_POINTER, PREFIX)                                      \
        static std::vector<platform::detail::LazySymbol> symbols(NAME& table) {   \
            return {LIST(FERRYHOLD_LAZY_SYMBOL, table, PREFIX)};                  \
        }                                                                         \
    }
