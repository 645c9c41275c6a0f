# Checks that no shipped program or library links a library the platform layer loads on
# first use (Platform/LazyLibrary): a NEEDED entry for one, or an undefined symbol of
# libcrypto's version, means some code calls it directly again, and every process would
# map it before main.
#   cmake -DREADELF=... -DLIB_DIR=... -DPROGRAMS="a;b" -DSONAMES="x.so.1;y.so.2" -P LazyLinkCheck.cmake
# Every ELF file below LIB_DIR (the libraries; links, such as the bundle's to its tool, are
# passed over) is checked, and each of PROGRAMS (the tools, the rule-data tool among them).
cmake_minimum_required(VERSION 3.20)

file(GLOB_RECURSE candidates LIST_DIRECTORIES false ${LIB_DIR}/*)
set(files)
foreach(file IN LISTS candidates PROGRAMS)
  if(IS_SYMLINK ${file})
    continue()
  endif()
  file(READ ${file} magic LIMIT 4 HEX)
  if(magic STREQUAL "7f454c46")
    list(APPEND files ${file})
  endif()
endforeach()
list(REMOVE_DUPLICATES files)
list(LENGTH files count)
if(count LESS 3)
  message(FATAL_ERROR "only ${count} programs and libraries found below ${LIB_DIR}: nothing was checked")
endif()

set(faults)
foreach(file IN LISTS files)
  execute_process(COMMAND ${READELF} -W --dynamic --dyn-syms ${file}
                  OUTPUT_VARIABLE dynamic RESULT_VARIABLE status ERROR_VARIABLE errors)
  if(NOT status EQUAL 0)
    list(APPEND faults "${file}: readelf failed: ${errors}")
    continue()
  endif()
  foreach(soname IN LISTS SONAMES)
    string(FIND "${dynamic}" "Shared library: [${soname}]" at)
    if(at GREATER -1)
      list(APPEND faults "${file} needs ${soname}")
    endif()
  endforeach()
  string(REGEX MATCHALL "UND [A-Za-z0-9_]+@OPENSSL_[0-9.]+" crypto "${dynamic}")
  if(crypto)
    list(GET crypto 0 first)
    list(APPEND faults "${file} calls libcrypto directly (${first})")
  endif()
endforeach()

if(faults)
  list(JOIN faults "\n" text)
  message(FATAL_ERROR "${text}")
endif()
message(STATUS "${count} programs and libraries, none linking ${SONAMES}")
