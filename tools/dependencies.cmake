# The libraries of the `morven` tool and its tests, found by header and
# library name so that a cross build finds its target's copies (through
# CMAKE_FIND_ROOT_PATH and Debian's multiarch directories) rather than the
# host's, which pkg-config would give. Each becomes an imported target:
#
#   morven_tool_webp    libwebp, libwebpdemux, libwebpmux
#   morven_tool_lcms2   Little CMS 2
#   morven_tool_exiv2   Exiv2 (optional: morven_tool_exiv2_FOUND tells)
#
# libpng, libjpeg and libtiff come through CMake's own find modules, CLI11
# through its CMake package.
# (Included once per directory that needs it: CMake's own imported targets
# are visible in the including directory only; ours are global.)
function(morven_tool_find target header)
  if(TARGET ${target})
    set(${target}_FOUND TRUE PARENT_SCOPE)
    return()
  endif()
  set(${target}_FOUND FALSE PARENT_SCOPE)
  find_path(${target}_INCLUDE_DIR ${header})
  if(NOT ${target}_INCLUDE_DIR)
    return()
  endif()
  set(libraries "")
  foreach(name IN LISTS ARGN)
    find_library(${target}_${name}_LIBRARY ${name})
    if(NOT ${target}_${name}_LIBRARY)
      return()
    endif()
    list(APPEND libraries ${${target}_${name}_LIBRARY})
  endforeach()
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  target_include_directories(${target} INTERFACE ${${target}_INCLUDE_DIR})
  target_link_libraries(${target} INTERFACE ${libraries})
  set(${target}_FOUND TRUE PARENT_SCOPE)
endfunction()

find_package(PNG REQUIRED)
find_package(JPEG REQUIRED)
find_package(TIFF REQUIRED)
morven_tool_find(morven_tool_webp webp/decode.h webp webpdemux webpmux)
morven_tool_find(morven_tool_lcms2 lcms2.h lcms2)
morven_tool_find(morven_tool_exiv2 exiv2/exiv2.hpp exiv2)
foreach(required morven_tool_webp morven_tool_lcms2)
  if(NOT ${required}_FOUND)
    message(FATAL_ERROR "${required}: not found (Debian: libwebp-dev, liblcms2-dev)")
  endif()
endforeach()
