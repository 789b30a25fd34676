# SPDX-License-Identifier: GPL-3.0-or-later
# larimo_add_version_info(TARGET [DESCRIPTION text]): compiles the program's version record (the
# product version as four numbers and the texts of the record) into a section of its file.

set(LARIMO_VERSION_TEMPLATE "${CMAKE_CURRENT_LIST_DIR}/VersionInfo.cpp.in")

function(larimo_add_version_info target)
  cmake_parse_arguments(ARG "" "DESCRIPTION" "" ${ARGN})
  set(descriptions_LarimoServer "Larimo voice service")
  set(descriptions_larimo "Larimo control panel")
  set(descriptions_larimoctl "Larimo command-line control")
  if(ARG_DESCRIPTION)
    set(LARIMO_VI_DESCRIPTION "${ARG_DESCRIPTION}")
  elseif(DEFINED descriptions_${target})
    set(LARIMO_VI_DESCRIPTION "${descriptions_${target}}")
  else()
    set(LARIMO_VI_DESCRIPTION "Larimo ${target}")
  endif()

  set(tweak "${CMAKE_PROJECT_VERSION_TWEAK}")
  if(tweak STREQUAL "")
    set(tweak 0)
  endif()
  set(LARIMO_VI_VERSION
    "${CMAKE_PROJECT_VERSION_MAJOR}.${CMAKE_PROJECT_VERSION_MINOR}.${CMAKE_PROJECT_VERSION_PATCH}.${tweak}")
  set(LARIMO_VI_TARGET "${target}")
  set(LARIMO_VI_FILENAME "${target}")
  set(LARIMO_VI_PRODUCT "Larimo")
  set(LARIMO_VI_COMPANY "The Larimo developers")
  set(LARIMO_VI_COPYRIGHT "Copyright (C) The Larimo developers. GNU GPL version 3 or later.")
  set(LARIMO_VI_COMMENTS "${CMAKE_PROJECT_DESCRIPTION}")
  foreach(text DESCRIPTION TARGET PRODUCT COMPANY COPYRIGHT COMMENTS)
    if(LARIMO_VI_${text} MATCHES "[\"\\\\]")
      message(FATAL_ERROR "Version text ${text} of ${target} must not hold quotes or backslashes")
    endif()
  endforeach()

  set(source "${CMAKE_CURRENT_BINARY_DIR}/${target}_version.cpp")
  configure_file("${LARIMO_VERSION_TEMPLATE}" "${source}" @ONLY)
  target_sources(${target} PRIVATE "${source}")
endfunction()
