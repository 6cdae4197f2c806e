# Writes the library's symbol version script (ELF platforms), run as
#   cmake -DHEADERS_DIR=Inc -DABI_DIR=abi -DSOVERSION=1 -DNODE=BASELIB_1.0
#         -DOUT=BaseLib.map -P BaseLibSymbols.cmake
#
# The exports are the functions (and the few data words) the public headers
# declare with VEK_API, so a function added to a header is exported and
# versioned without a list to keep by hand. A function keeps the version
# node the ABI baseline of this SONAME (abi/libBaseLib.so.<SOVERSION>.*.abi)
# records for it: a release never moves a symbol to another node.
# Everything not yet recorded joins NODE, the node of the version being
# built, which inherits the older ones.
# Every other symbol is local.
cmake_minimum_required(VERSION 3.20)
foreach(var HEADERS_DIR ABI_DIR SOVERSION NODE OUT)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "BaseLibSymbols.cmake: ${var} is not set")
  endif()
endforeach()

# The declared functions (the same reading as scripts/check-exports.sh).
set(declared)
file(GLOB headers "${HEADERS_DIR}/*.h")
foreach(header IN LISTS headers)
  file(STRINGS "${header}" lines REGEX "^[ \t]*VEK_API[^(;]*[A-Za-z_0-9]+\\(")
  foreach(line IN LISTS lines)
    if(line MATCHES "^[ \t]*VEK_API[^(;]*[^A-Za-z_0-9]([A-Za-z_0-9]+)\\(")
      list(APPEND declared "${CMAKE_MATCH_1}")
    endif()
  endforeach()
  # Exported data: "extern VEK_API type name;" (the trace's generation word).
  file(STRINGS "${header}" lines REGEX "^[ \t]*extern VEK_API [^(;]*[A-Za-z_0-9]+;")
  foreach(line IN LISTS lines)
    if(line MATCHES "^[ \t]*extern VEK_API [^(;]*[^A-Za-z_0-9]([A-Za-z_0-9]+);")
      list(APPEND declared "${CMAKE_MATCH_1}")
    endif()
  endforeach()
endforeach()
list(REMOVE_DUPLICATES declared)
list(SORT declared)
if(NOT declared)
  message(FATAL_ERROR "BaseLibSymbols.cmake: no VEK_API declarations in ${HEADERS_DIR}")
endif()

# The nodes the baselines record (one file per architecture; they agree).
set(nodes ${NODE})
file(GLOB baselines "${ABI_DIR}/libBaseLib.so.${SOVERSION}.*.abi")
foreach(baseline IN LISTS baselines)
  file(STRINGS "${baseline}" records REGEX "<elf-symbol name='[^']+' version='[^']+'.*type='func-type'")
  foreach(record IN LISTS records)
    if(record MATCHES "<elf-symbol name='([^']+)' version='([^']+)'")
      set(name "${CMAKE_MATCH_1}")
      set(node "${CMAKE_MATCH_2}")
      if(name IN_LIST declared AND NOT DEFINED node_of_${name})
        set(node_of_${name} "${node}")
        list(APPEND nodes "${node}")
      endif()
    endif()
  endforeach()
endforeach()
list(REMOVE_DUPLICATES nodes)
list(SORT nodes COMPARE NATURAL)

set(text "/* Generated from the VEK_API declarations of the public headers. */\n")
set(parent "")
foreach(node IN LISTS nodes)
  string(APPEND text "${node} {\n  global:\n")
  foreach(name IN LISTS declared)
    if(DEFINED node_of_${name})
      set(its "${node_of_${name}}")
    else()
      set(its "${NODE}")
    endif()
    if(its STREQUAL node)
      string(APPEND text "    ${name};\n")
    endif()
  endforeach()
  if(parent STREQUAL "")
    string(APPEND text "  local:\n    *;\n};\n")
  else()
    string(APPEND text "} ${parent};\n")
  endif()
  set(parent "${node}")
endforeach()

# Rewritten only when it changes, so that an unrelated header edit does
# not relink the library on its own.
if(EXISTS "${OUT}")
  file(READ "${OUT}" old)
  if(old STREQUAL text)
    return()
  endif()
endif()
file(WRITE "${OUT}" "${text}")
