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
