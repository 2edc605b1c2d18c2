# Compares the dynamic symbols that a shared library defines with the names
# that the public headers declare with MORVEN_API: both sets must be equal, so
# that no internal symbol leaks and no declared function or table is missing.
# Each header declares the library's core functions first and its extensions
# after a comment line starting "/* Extensions"; the core names must be
# exactly those listed in CORE_LIST (one per line), so that no core
# function disappears or changes its name and nothing new is added to the
# core unnoticed. The exports must then be the core plus the extensions.
#
#   cmake -DLIBRARY=<libmorven.so> -DHEADER_DIR=<include/morven>
#         -DCORE_LIST=<core_symbols.txt> [-DNM=nm] -P check_symbols.cmake
#
# Declarations are found by pattern, not by a C parser: after comments and
# preprocessor lines are removed, every declaration containing MORVEN_API
# names the identifier before its first "(" (a function) or, without
# parentheses, the identifier before any "[...]" and the ";" (data).

cmake_minimum_required(VERSION 3.20)

foreach(var LIBRARY HEADER_DIR CORE_LIST)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "check_symbols.cmake: -D${var}=... is required")
  endif()
endforeach()
if(NOT NM)
  find_program(NM nm REQUIRED)
endif()
if(NOT EXISTS "${LIBRARY}")
  message(FATAL_ERROR "library not found: ${LIBRARY}")
endif()

# Symbols the linker and the runtime add to every shared object.
set(linker_symbols _init _fini _edata _end __bss_start _etext __end__ __data_start
    _DYNAMIC _GLOBAL_OFFSET_TABLE_ __dso_handle)

# --- Names declared in the headers -----------------------------------------

# Removes /* */ and // comments (string literals do not occur in the headers).
function(strip_comments text out)
  set(result "")
  while(TRUE)
    string(FIND "${text}" "/*" block)
    string(FIND "${text}" "//" line)
    if(block EQUAL -1 AND line EQUAL -1)
      break()
    endif()
    if(line EQUAL -1 OR (NOT block EQUAL -1 AND block LESS line))
      string(SUBSTRING "${text}" 0 ${block} head)
      math(EXPR after "${block} + 2")
      string(SUBSTRING "${text}" ${after} -1 rest)
      string(FIND "${rest}" "*/" close)
      if(close EQUAL -1)
        message(FATAL_ERROR "unterminated comment")
      endif()
      math(EXPR after "${close} + 2")
      string(SUBSTRING "${rest}" ${after} -1 text)
      string(APPEND result "${head} ")
    else()
      string(SUBSTRING "${text}" 0 ${line} head)
      string(SUBSTRING "${text}" ${line} -1 rest)
      string(FIND "${rest}" "\n" close)
      if(close EQUAL -1)
        set(text "")
      else()
        string(SUBSTRING "${rest}" ${close} -1 text)
      endif()
      string(APPEND result "${head}")
    endif()
  endwhile()
  string(APPEND result "${text}")
  set(${out} "${result}" PARENT_SCOPE)
endfunction()

file(GLOB_RECURSE headers "${HEADER_DIR}/*.h")
list(SORT headers)
if(NOT headers)
  message(FATAL_ERROR "no headers under ${HEADER_DIR}")
endif()

# Appends the MORVEN_API names declared in text to the list named by out.
function(collect_declared text header out)
  set(names ${${out}})
  # Semicolons end declarations; turn them into newlines before anything
  # treats the text as a CMake list, and keep newlines only as separators.
  string(REPLACE "\\\n" " " text "${text}")
  strip_comments("${text}" text)
  string(REGEX REPLACE "\n[ \t]*#[^\n]*" "\n" text "\n${text}")
  string(REGEX REPLACE "[\r\n\t]" " " text "${text}")
  string(REPLACE ";" "\n" text "${text}")
  string(REPLACE "{" "\n" text "${text}")
  string(REPLACE "}" "\n" text "${text}")
  string(REGEX MATCHALL "MORVEN_API[^\n]*" declarations "${text}")
  foreach(decl ${declarations})
    string(FIND "${decl}" "(" paren)
    if(NOT paren EQUAL -1)
      string(SUBSTRING "${decl}" 0 ${paren} head)
      string(REGEX MATCH "([A-Za-z_][A-Za-z0-9_]*)[ ]*$" name "${head}")
    else()
      string(REGEX REPLACE "(\\[[^]]*\\][ ]*)+$" "" head "${decl}")
      string(REGEX REPLACE "(=.*)$" "" head "${head}")
      string(REGEX MATCH "([A-Za-z_][A-Za-z0-9_]*)[ ]*$" name "${head}")
    endif()
    set(name "${CMAKE_MATCH_1}")
    if(name STREQUAL "" OR name STREQUAL "MORVEN_API")
      message(FATAL_ERROR "cannot find the declared name in ${header}: ${decl}")
    endif()
    list(APPEND names "${name}")
  endforeach()
  set(${out} ${names} PARENT_SCOPE)
endfunction()

set(core "")
set(extensions "")
foreach(header ${headers})
  file(READ "${header}" text)
  # Everything from the "/* Extensions" heading on is an extension.
  string(REGEX MATCH "\n/\\* Extensions" marker "${text}")
  if(marker)
    string(FIND "${text}" "${marker}" at)
    string(SUBSTRING "${text}" 0 ${at} core_text)
    string(SUBSTRING "${text}" ${at} -1 extension_text)
  else()
    set(core_text "${text}")
    set(extension_text "")
  endif()
  collect_declared("${core_text}" "${header}" core)
  collect_declared("${extension_text}" "${header}" extensions)
endforeach()
set(declared ${core} ${extensions})
list(REMOVE_DUPLICATES declared)
list(SORT declared)
if(NOT declared)
  message(FATAL_ERROR "no MORVEN_API declaration found under ${HEADER_DIR}")
endif()

# --- Names the library exports ---------------------------------------------

execute_process(COMMAND "${NM}" -D --defined-only "${LIBRARY}"
  OUTPUT_VARIABLE nm_output ERROR_VARIABLE nm_error RESULT_VARIABLE nm_result)
if(NOT nm_result EQUAL 0)
  message(FATAL_ERROR "${NM} -D --defined-only ${LIBRARY} failed (${nm_result}): ${nm_error}")
endif()

set(exported "")
string(REPLACE ";" "\\;" nm_output "${nm_output}")
string(REPLACE "\n" ";" nm_lines "${nm_output}")
foreach(line ${nm_lines})
  # "<value> <kind> <name>[@version]"
  if(NOT line MATCHES "^[0-9A-Fa-f]* *([A-Za-z]) +([^ @]+)")
    continue()
  endif()
  set(name "${CMAKE_MATCH_2}")
  if(CMAKE_MATCH_1 STREQUAL "A" OR name IN_LIST linker_symbols)
    continue()   # absolute symbols are version nodes and linker markers
  endif()
  if(name MATCHES "^__odr_asan[._]")
    continue()   # AddressSanitizer's one-definition-rule markers of exported data
  endif()
  list(APPEND exported "${name}")
endforeach()
list(REMOVE_DUPLICATES exported)
list(SORT exported)

# --- Core declarations against the core list -- ------------------------------

file(STRINGS "${CORE_LIST}" listed REGEX "^[A-Za-z_]")
list(SORT listed)
list(SORT core)
if(NOT core STREQUAL listed)
  set(gone ${listed})
  list(REMOVE_ITEM gone ${core})
  set(added ${core})
  list(REMOVE_ITEM added ${listed})
  message(FATAL_ERROR "core declarations differ from ${CORE_LIST}:\n"
                      "  missing: ${gone}\n  not in the list (declare extensions after the "
                      "Extensions heading): ${added}")
endif()

# --- Compare ----------------------------------------------------------------

set(missing ${declared})
if(exported)
  list(REMOVE_ITEM missing ${exported})
endif()
set(extra ${exported})
list(REMOVE_ITEM extra ${declared})

list(LENGTH declared n_declared)
list(LENGTH exported n_exported)
if(missing OR extra)
  set(report "exported symbols of ${LIBRARY} differ from the MORVEN_API declarations")
  if(missing)
    list(LENGTH missing n)
    list(JOIN missing "\n    " lines)
    string(APPEND report "\n  ${n} declared but not exported:\n    ${lines}")
  endif()
  if(extra)
    list(LENGTH extra n)
    list(JOIN extra "\n    " lines)
    string(APPEND report "\n  ${n} exported but not declared (internal leaks):\n    ${lines}")
  endif()
  message(FATAL_ERROR "${report}")
endif()
list(LENGTH core n_core)
list(LENGTH extensions n_extensions)
message(STATUS "${n_exported} exported symbols match the ${n_declared} MORVEN_API declarations: "
               "${n_core} core functions and tables, ${n_extensions} extensions")
