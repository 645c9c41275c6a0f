# Symbols a shared library keeps to itself.
#
# The platform library keeps its detail namespaces (platform::fs::detail,
# platform::plist::detail, platform::security::detail: what its own files share, the
# OpenSSL handles among them) local under a version script.
set(FERRYHOLD_PLATFORM_MAP ${CMAKE_SOURCE_DIR}/cmake/ferryhold-platform.map)
target_link_options(Platform PRIVATE "LINKER:--version-script=${FERRYHOLD_PLATFORM_MAP}")
set_property(TARGET Platform APPEND PROPERTY LINK_DEPENDS ${FERRYHOLD_PLATFORM_MAP})

# The XAR codec (CrateworksCore/Package_API/Archive/xar) belongs to the Crateworks
# library: the CW archive classes are its public face. Its objects move into a static
# library, CrateworksXar, which Crateworks links under a version script that keeps every
# crateworks::xar symbol local (inline functions of the codec's headers included). The
# crateworks tool, the tests and the XAR fuzz target reach into the codec, so they link
# a copy of their own; the codec holds no state outside its objects, so the two copies
# work on the same archives and readers alike.
get_target_property(crateworks_sources Crateworks SOURCES)
set(xar_sources ${crateworks_sources})
list(FILTER xar_sources INCLUDE REGEX "/Archive/xar/[^/]*\\.cpp$")
list(FILTER crateworks_sources EXCLUDE REGEX "/Archive/xar/[^/]*\\.cpp$")
set_property(TARGET Crateworks PROPERTY SOURCES ${crateworks_sources})
add_library(CrateworksXar STATIC ${xar_sources})
target_link_libraries(CrateworksXar
  PUBLIC Platform
  PRIVATE PkgConfig::LIBDEFLATE ZLIB::ZLIB BZip2::BZip2 LibLZMA::LibLZMA)
# libxml2's headers only: the TOC reader loads the library when a TOC is first read.
target_include_directories(CrateworksXar PRIVATE ${LIBXML2_INCLUDE_DIRS})
target_link_libraries(Crateworks PRIVATE CrateworksXar)
set(FERRYHOLD_CRATEWORKS_MAP ${CMAKE_SOURCE_DIR}/cmake/crateworks.map)
target_link_options(Crateworks PRIVATE "LINKER:--version-script=${FERRYHOLD_CRATEWORKS_MAP}")
set_property(TARGET Crateworks APPEND PROPERTY LINK_DEPENDS ${FERRYHOLD_CRATEWORKS_MAP})

foreach(user crateworks fuzz_xar)
  if(TARGET ${user})
    target_link_libraries(${user} PRIVATE CrateworksXar)
  endif()
endforeach()
if(TARGET TestSupport)
  target_link_libraries(TestSupport PUBLIC CrateworksXar)
endif()
