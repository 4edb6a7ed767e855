# tarvo_exports(TARGET LIST [VERSION]): the library exports the names in LIST, one a line, and no
# others, under the symbol version VERSION. A listed name that is not defined fails the link.
function(tarvo_exports target list)
  file(STRINGS ${list} names)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${list})
  list(JOIN names ";\n    " names)
  set(script ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
  file(CONFIGURE OUTPUT ${script} CONTENT "@ARGN@ {\n  global:\n    @names@;\n  local:\n    *;\n};\n" @ONLY)
  target_link_options(${target} PRIVATE
    LINKER:--version-script=${script} LINKER:--no-undefined-version)
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${script})
endfunction()
