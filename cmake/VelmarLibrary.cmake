# velmar_include_root(TARGET ALIAS DIR)
# Lets TARGET and everything that links it include DIR's headers as "ALIAS/Header.h", and
# nothing else: the include root is a directory of TARGET's own in the build tree that
# holds one link, ALIAS -> DIR. A library that does not link TARGET cannot reach its
# headers, so the build itself refuses an edge the layering does not allow.
function(velmar_include_root target alias dir)
  set(root ${CMAKE_BINARY_DIR}/include/${target})
  get_filename_component(parent ${root}/${alias} DIRECTORY)
  file(MAKE_DIRECTORY ${parent})
  file(CREATE_LINK ${dir} ${root}/${alias} SYMBOLIC)
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${root}>)
endfunction()

# velmar_add_library(NAME SHARED|STATIC SOURCES src... [INCLUDE_AS ALIAS] [PUBLIC lib...]
#                    [PRIVATE lib...])
# A library of the project: its headers reachable as "ALIAS/Header.h" by whatever links it
# (velmar_include_root, over the declaring folder) and the project's warnings. (A library
# that needs the build's facts, the enterprise number or the version, links
# Velmar::BuildInfo PRIVATE.)
#   SHARED  a platform library: libvelmar-NAME.so, installed into <libdir>/velmar, where
#           the agent and the modules find it through their RUNPATH
#   STATIC  position-independent (linked into the agent and into the dlmod bridge); not
#           installed
function(velmar_add_library name kind)
  cmake_parse_arguments(L "" "INCLUDE_AS" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  add_library(${name} ${kind} ${L_SOURCES})
  if(L_INCLUDE_AS)
    velmar_include_root(${name} ${L_INCLUDE_AS} ${CMAKE_CURRENT_SOURCE_DIR})
  endif()
  if(L_PUBLIC)
    target_link_libraries(${name} PUBLIC ${L_PUBLIC})
  endif()
  if(L_PRIVATE)
    target_link_libraries(${name} PRIVATE ${L_PRIVATE})
  endif()
  target_compile_options(${name} PRIVATE ${VELMAR_WARNINGS})
  if(kind STREQUAL "SHARED")
    set_target_properties(${name} PROPERTIES OUTPUT_NAME velmar-${name})
    install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/velmar)
  elseif(kind STREQUAL "STATIC")
    set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  else()
    message(FATAL_ERROR "velmar_add_library(${name}): SHARED or STATIC, not ${kind}")
  endif()
endfunction()
