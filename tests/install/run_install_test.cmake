# Install test, run by CTest as a script:
#  1. `cmake --install` the build tree into <WORK_DIR>/prefix;
#  2. check the installed files;
#  3. configure, build and run host/ with find_package(morven) (and its static
#     twin when libmorven.a is installed);
#  4. compile host/main.c with `cc $(pkg-config --cflags --libs morven)` and
#     run it against the installed shared library.
# In a cross build, TOOLCHAIN_FILE configures the host project and the hosts
# run through EMULATOR (a list: program and its arguments).
# Nothing here uses the network.

cmake_minimum_required(VERSION 3.20)

foreach(var BINARY_DIR WORK_DIR HOST_SOURCE_DIR SOURCE_INCLUDE_DIR GENERATOR C_COMPILER LIBDIR INCLUDEDIR
            VERSION SOVERSION)
  if(NOT DEFINED ${var} OR "${${var}}" STREQUAL "")
    message(FATAL_ERROR "run_install_test.cmake: -D${var}=... is required")
  endif()
endforeach()
if(NOT CONFIG)
  set(CONFIG Release)
endif()

set(prefix "${WORK_DIR}/prefix")
set(libdir "${prefix}/${LIBDIR}")
set(includedir "${prefix}/${INCLUDEDIR}")

# Runs a command, echoing it, and stops the test when it fails.
function(run what)
  string(REPLACE ";" " " shown "${ARGN}")
  message(STATUS "${what}: ${shown}")
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result
                  OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "${what} failed (${result}):\n${out}")
  endif()
  string(STRIP "${out}" out)
  if(NOT out STREQUAL "")
    message("${out}")
  endif()
endfunction()

# Flags the host needs when the library is instrumented (the sanitizer
# runtimes must be linked into the executable).
set(sanitize_flags "")
if(SANITIZE)
  set(sanitize_flags -fsanitize=${SANITIZE} -fno-omit-frame-pointer)
endif()
string(REPLACE ";" " " sanitize_flags_string "${sanitize_flags}")

# --- 1. Install -------------------------------------------------------------
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")
run("install" "${CMAKE_COMMAND}" --install "${BINARY_DIR}" --prefix "${prefix}" --config "${CONFIG}")

# --- 2. Installed files -----------------------------------------------------
set(expected
  "${libdir}/libmorven.so"
  "${libdir}/libmorven.so.${SOVERSION}"
  "${libdir}/libmorven.so.${VERSION}"
  "${includedir}/morven/morven.h"
  "${includedir}/morven/common.h"
  "${includedir}/morven/image.h"
  "${includedir}/morven/version.h"
  "${libdir}/cmake/morven/morvenConfig.cmake"
  "${libdir}/cmake/morven/morvenConfigVersion.cmake"
  "${libdir}/cmake/morven/morvenTargets.cmake"
  "${libdir}/pkgconfig/morven.pc")
if(STATIC)
  list(APPEND expected "${libdir}/libmorven.a")
elseif(EXISTS "${libdir}/libmorven.a")
  message(FATAL_ERROR "libmorven.a installed although MORVEN_BUILD_STATIC is OFF")
endif()
foreach(file ${expected})
  if(NOT EXISTS "${file}")
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()
foreach(link libmorven.so libmorven.so.${SOVERSION})
  if(NOT IS_SYMLINK "${libdir}/${link}")
    message(FATAL_ERROR "${libdir}/${link} is not a symbolic link")
  endif()
endforeach()
file(READ_SYMLINK "${libdir}/libmorven.so" target)
if(NOT target STREQUAL "libmorven.so.${SOVERSION}")
  message(FATAL_ERROR "libmorven.so points to ${target}, not libmorven.so.${SOVERSION}")
endif()
# Every public header of the source tree is installed.
file(GLOB_RECURSE source_headers RELATIVE "${SOURCE_INCLUDE_DIR}/morven"
     "${SOURCE_INCLUDE_DIR}/morven/*.h")
foreach(header ${source_headers})
  if(NOT EXISTS "${includedir}/morven/${header}")
    message(FATAL_ERROR "public header not installed: ${header}")
  endif()
endforeach()

# --- 3. CMake package -------------------------------------------------------
set(host_build "${WORK_DIR}/host-cmake")
set(configure_args
  -S "${HOST_SOURCE_DIR}" -B "${host_build}" -G "${GENERATOR}"
  "-DCMAKE_C_COMPILER=${C_COMPILER}"
  "-DCMAKE_BUILD_TYPE=${CONFIG}"
  "-DCMAKE_PREFIX_PATH=${prefix}"
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
  "-DCMAKE_C_FLAGS=${sanitize_flags_string}"
  "-DCMAKE_EXE_LINKER_FLAGS=${sanitize_flags_string}")
if(TOOLCHAIN_FILE)
  list(APPEND configure_args "-DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE}")
endif()
if(MAKE_PROGRAM)
  list(APPEND configure_args "-DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM}")
endif()
run("configure host" "${CMAKE_COMMAND}" ${configure_args})

# The package must come from the fresh prefix, not from the system.
file(STRINGS "${host_build}/CMakeCache.txt" found_dir REGEX "^morven_DIR:")
string(REGEX REPLACE "^[^=]*=" "" found_dir "${found_dir}")
file(REAL_PATH "${found_dir}" found_dir)
file(REAL_PATH "${prefix}" real_prefix)
string(FIND "${found_dir}/" "${real_prefix}/" at)
if(NOT at EQUAL 0)
  message(FATAL_ERROR "find_package(morven) used ${found_dir}, not the installed ${prefix}")
endif()

run("build host" "${CMAKE_COMMAND}" --build "${host_build}" --config "${CONFIG}")

set(hosts host)
if(STATIC)
  list(APPEND hosts host_static)
endif()
foreach(name ${hosts})
  set(exe "${host_build}/${name}")
  if(NOT EXISTS "${exe}")
    set(exe "${host_build}/${CONFIG}/${name}")   # multi-configuration generators
  endif()
  if(NOT EXISTS "${exe}")
    message(FATAL_ERROR "${name} was not built")
  endif()
  run("run ${name}" ${EMULATOR} "${exe}")
endforeach()

# --- 4. pkg-config ----------------------------------------------------------
if(NOT PKG_CONFIG)
  message(FATAL_ERROR "pkg-config not found: cannot check morven.pc")
endif()
set(ENV{PKG_CONFIG_PATH} "${libdir}/pkgconfig")

execute_process(COMMAND "${PKG_CONFIG}" --modversion morven
  OUTPUT_VARIABLE pc_version RESULT_VARIABLE result OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0 OR NOT pc_version STREQUAL VERSION)
  message(FATAL_ERROR "pkg-config --modversion morven gave '${pc_version}' (${result}), expected ${VERSION}")
endif()
execute_process(COMMAND "${PKG_CONFIG}" --variable=prefix morven
  OUTPUT_VARIABLE pc_prefix OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT pc_prefix STREQUAL prefix)
  message(FATAL_ERROR "morven.pc has prefix '${pc_prefix}', expected ${prefix}")
endif()
execute_process(COMMAND "${PKG_CONFIG}" --static --libs morven
  OUTPUT_VARIABLE pc_static OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT pc_static MATCHES "(^| )-lm( |$)")
  message(FATAL_ERROR "pkg-config --static --libs morven lacks -lm: ${pc_static}")
endif()

execute_process(COMMAND "${PKG_CONFIG}" --cflags --libs morven
  OUTPUT_VARIABLE pc_flags RESULT_VARIABLE result OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "pkg-config --cflags --libs morven failed")
endif()
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")

set(host_pc "${WORK_DIR}/host-pkg-config")
run("compile with pkg-config" "${C_COMPILER}" -std=c99 -pedantic -Wall -Wextra -Werror
    ${sanitize_flags} "${HOST_SOURCE_DIR}/main.c" -o "${host_pc}" ${pc_flags})
if(DEFINED ENV{LD_LIBRARY_PATH} AND NOT "$ENV{LD_LIBRARY_PATH}" STREQUAL "")
  set(ENV{LD_LIBRARY_PATH} "${libdir}:$ENV{LD_LIBRARY_PATH}")
else()
  set(ENV{LD_LIBRARY_PATH} "${libdir}")
endif()
run("run pkg-config host" ${EMULATOR} "${host_pc}")

message(STATUS "installed tree in ${prefix} works through find_package and pkg-config")
