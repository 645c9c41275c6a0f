# What `cmake --install` lays out: the shared libraries, versioned and named after their
# owner; the public headers only; pkg-config files that stay right wherever the tree is
# installed; the tools with their man pages and completions; and the resource bundle
# under the data directory, where the installed libraries look for it.
#
# Components: "runtime" (libraries, bundle), "tools" (reaper, ferryhold, crateworks,
# their man pages and completions), "development" (headers, links, pkg-config files).

# The targets keep their short names (the tree links them by those); the files say
# whose they are. SOVERSION changes with every release that breaks the ABI.
set(FERRYHOLD_SOVERSION 0)
set_target_properties(Platform PROPERTIES OUTPUT_NAME ferryhold-platform)
set_target_properties(Crateworks PROPERTIES OUTPUT_NAME crateworks)
set_target_properties(Ferryhold PROPERTIES OUTPUT_NAME ferryhold)
set_target_properties(Platform Crateworks Ferryhold PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${FERRYHOLD_SOVERSION})

# The installed bundle, and the way the platform library reaches it: relative to the
# library's own directory first (an installed tree moved as a whole still works), then
# at the absolute path of this configuration. Only Framework.cpp sees the definitions,
# so another prefix recompiles one file.
set(FERRYHOLD_FRAMEWORK_INSTALL_DIR ${CMAKE_INSTALL_DATADIR}/ferryhold/Ferryhold.framework)
set(FERRYHOLD_FRAMEWORK_INSTALL_FULL_DIR ${CMAKE_INSTALL_FULL_DATADIR}/ferryhold/Ferryhold.framework)
file(RELATIVE_PATH FERRYHOLD_FRAMEWORK_FROM_LIBDIR ${CMAKE_INSTALL_FULL_LIBDIR} ${FERRYHOLD_FRAMEWORK_INSTALL_FULL_DIR})
set_property(SOURCE ${CMAKE_SOURCE_DIR}/Platform/Framework.cpp APPEND PROPERTY COMPILE_DEFINITIONS
  FERRYHOLD_FRAMEWORK_FROM_LIBDIR="${FERRYHOLD_FRAMEWORK_FROM_LIBDIR}"
  FERRYHOLD_FRAMEWORK_INSTALLED="${FERRYHOLD_FRAMEWORK_INSTALL_FULL_DIR}")

install(TARGETS Platform Crateworks Ferryhold
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY resources/Ferryhold.framework/ DESTINATION ${FERRYHOLD_FRAMEWORK_INSTALL_DIR}
  COMPONENT runtime)

# pdExtraKeepPaths is a program, so it is installed with the private programs; the
# bundle holds a relative link to it where the rule data expects the tool.
set(FERRYHOLD_LIBEXEC_DIR ${CMAKE_INSTALL_LIBEXECDIR}/ferryhold)
file(RELATIVE_PATH FERRYHOLD_LIBEXEC_TO_LIBDIR ${CMAKE_INSTALL_FULL_LIBEXECDIR}/ferryhold ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(pdExtraKeepPaths PROPERTIES INSTALL_RPATH "$ORIGIN/${FERRYHOLD_LIBEXEC_TO_LIBDIR}")
install(TARGETS pdExtraKeepPaths RUNTIME DESTINATION ${FERRYHOLD_LIBEXEC_DIR} COMPONENT runtime)
set(FERRYHOLD_TOOL_LINK_DIR ${FERRYHOLD_FRAMEWORK_INSTALL_DIR}/Resources/MigrationData/ConfMigrator)
file(RELATIVE_PATH FERRYHOLD_TOOL_LINK_TARGET ${CMAKE_INSTALL_PREFIX}/${FERRYHOLD_TOOL_LINK_DIR}
  ${CMAKE_INSTALL_PREFIX}/${FERRYHOLD_LIBEXEC_DIR}/pdExtraKeepPaths)
install(CODE "
  set(link \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${FERRYHOLD_TOOL_LINK_DIR}/pdExtraKeepPaths\")
  message(STATUS \"Installing: \${link} -> ${FERRYHOLD_TOOL_LINK_TARGET}\")
  file(REMOVE \"\${link}\")
  file(CREATE_LINK \"${FERRYHOLD_TOOL_LINK_TARGET}\" \"\${link}\" SYMBOLIC)
" COMPONENT runtime)

# The tools.
install(TARGETS reaper ferryhold RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
if(TARGET crateworks)
  install(TARGETS crateworks RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()
install(FILES ${FERRYHOLD_MAN_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
install(FILES CrateworksTool/crateworks.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME crateworks COMPONENT tools)
install(FILES FerryholdTool/ferryhold.bash-completion DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME ferryhold COMPONENT tools)

# Public headers: the library folders, less what only the libraries' own sources
# include. The XAR codec (Archive/xar) stays inside; the CW archive classes name it only
# through xar/XarForward.h. scripts/check-installed-headers.sh proves that no installed
# header includes one left out (the installed_headers test runs it).
set(FERRYHOLD_INTERNAL_HEADERS
  Platform/OpenSSLHandles.h Platform/CryptoLibrary.h Platform/CurlDriver.h Platform/CurlLibrary.h Platform/LazyLibrary.h
  Platform/FileDetail.h Platform/PropertyListFailure.h)
set(FERRYHOLD_HEADER_EXCLUDES PATTERN "Archive/xar" EXCLUDE)
foreach(header IN LISTS FERRYHOLD_INTERNAL_HEADERS)
  list(APPEND FERRYHOLD_HEADER_EXCLUDES PATTERN "${header}" EXCLUDE)
endforeach()
foreach(dir Platform FHPathAnalysis CrateworksCore Distribution_Layer)
  install(DIRECTORY ${dir} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ferryhold COMPONENT development
          FILES_MATCHING PATTERN "*.h" ${FERRYHOLD_HEADER_EXCLUDES})
endforeach()
install(FILES CrateworksCore/Package_API/Archive/xar/XarForward.h COMPONENT development
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ferryhold/CrateworksCore/Package_API/Archive/xar)

# pkg-config files. The prefix is found from the file's own directory, so a tree
# installed with --prefix or DESTDIR, or unpacked elsewhere, names itself. Requires
# lists the modules whose headers the public headers include (fmt only: the platform
# layer keeps OpenSSL, libcurl, libplist and the rest behind its own types, and no
# static archive is installed, so nothing else is needed to link).
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(FERRYHOLD_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH FERRYHOLD_PC_UP ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" FERRYHOLD_PC_UP "${FERRYHOLD_PC_UP}")
  set(FERRYHOLD_PC_PREFIX "\${pcfiledir}/${FERRYHOLD_PC_UP}")
endif()
function(ferryhold_pkg_config target description requires)
  get_target_property(pc_name ${target} OUTPUT_NAME)
  set(pc_description "${description}")
  set(pc_requires "${requires}")
  configure_file(${CMAKE_SOURCE_DIR}/cmake/ferryhold-lib.pc.in ${CMAKE_BINARY_DIR}/pkgconfig/${pc_name}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/pkgconfig/${pc_name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
          COMPONENT development)
endfunction()
ferryhold_pkg_config(Platform
  "Ferryhold platform layer: values, property lists, paths, files, logs, digests, certificates, errors"
  "fmt")
ferryhold_pkg_config(Crateworks
  "Crateworks package library: receipts, BOM files, XAR archives, trust, products and downloads"
  "ferryhold-platform = ${PROJECT_VERSION}")
ferryhold_pkg_config(Ferryhold
  "Ferryhold path analysis: system files, migration rules, incompatible applications"
  "crateworks = ${PROJECT_VERSION}, ferryhold-platform = ${PROJECT_VERSION}, fmt")

if(FERRYHOLD_TESTS)
  # The headers as installed compile on their own, and none includes a header that is
  # not installed.
  add_test(NAME installed_headers COMMAND bash ${CMAKE_SOURCE_DIR}/scripts/check-installed-headers.sh
           --install ${CMAKE_BINARY_DIR})
endif()
