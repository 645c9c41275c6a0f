// Names of the XAR internals that the public archive classes mention, without their
// definitions: the internals' headers are not part of the installed interface.
#pragma once

namespace crateworks::xar {
class XarReader;
class XarWriter;
struct Entry;
using File = Entry*;
}  // namespace crateworks::xar
