# tarn_version(TARGET PREFIX FUNCTION HEADER LIBRARY API_INCLUDE API_MACRO
# [INCLUDE_DIR dir]): generates the version header HEADER (a path under an
# include folder, e.g. tarnbase/tarnbase_version.h) from the project's
# version -- the macros PREFIX_VERSION_MAJOR, _MINOR, _PATCH, _HEX and
# _STRING and the declaration of FUNCTION, exported with API_MACRO, which
# the header API_INCLUDE (with its quotes or brackets) defines -- and
# builds FUNCTION into TARGET. The header goes into the generated include
# folder INCLUDE_DIR (default: include/ in the current binary folder), which
# TARGET gets on its include path; the install copies it beside the
# library's other headers (COMPONENT dev).
#
# The generated header is never written into the sources: a build of any
# version can share the source tree with another.
if(PROJECT_VERSION_MAJOR GREATER 255 OR PROJECT_VERSION_MINOR GREATER 255 OR PROJECT_VERSION_PATCH GREATER 255)
  message(FATAL_ERROR "The version macros hold each part of the version in one byte: ${PROJECT_VERSION} does not fit")
endif()
# 0xMMmmpp, each part as two hexadecimal digits.
set(TARN_VERSION_HEX "0x")
foreach(part MAJOR MINOR PATCH)
  math(EXPR digits "${PROJECT_VERSION_${part}} + 256" OUTPUT_FORMAT HEXADECIMAL)
  string(SUBSTRING "${digits}" 3 2 digits)
  string(APPEND TARN_VERSION_HEX "${digits}")
endforeach()

function(tarn_version target)
  cmake_parse_arguments(ARG "" "PREFIX;FUNCTION;HEADER;LIBRARY;API_INCLUDE;API_MACRO;INCLUDE_DIR" "" ${ARGN})
  if(NOT ARG_INCLUDE_DIR)
    set(ARG_INCLUDE_DIR ${CMAKE_CURRENT_BINARY_DIR}/include)
  endif()
  set(TARN_VERSION_PREFIX ${ARG_PREFIX})
  set(TARN_VERSION_FUNCTION ${ARG_FUNCTION})
  set(TARN_VERSION_LIBRARY ${ARG_LIBRARY})
  set(TARN_VERSION_API_INCLUDE ${ARG_API_INCLUDE})
  set(TARN_VERSION_API_MACRO ${ARG_API_MACRO})
  set(TARN_VERSION_HEADER_PATH ${ARG_HEADER})
  get_filename_component(TARN_VERSION_HEADER ${ARG_HEADER} NAME)
  get_filename_component(header_dir ${ARG_HEADER} DIRECTORY)
  string(MAKE_C_IDENTIFIER "${TARN_VERSION_HEADER}" TARN_VERSION_GUARD)
  string(TOUPPER "${TARN_VERSION_GUARD}" TARN_VERSION_GUARD)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/version.h.in ${ARG_INCLUDE_DIR}/${ARG_HEADER} @ONLY)
  set(source ${CMAKE_CURRENT_BINARY_DIR}/${ARG_FUNCTION}.c)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/version.c.in ${source} @ONLY)
  target_sources(${target} PRIVATE ${source})
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${ARG_INCLUDE_DIR}>)
  install(FILES ${ARG_INCLUDE_DIR}/${ARG_HEADER}
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${header_dir} COMPONENT dev)
endfunction()
