# install_placed(FILE FOLDER COMPONENT): installs a file that contains the path of the programs. It is made from
# FILE.in, in which @PLACE@ stands for the prefix, during the installation, since the prefix is not known before.
# Another copy, with the build tree as prefix, is made in the build tree.
function(install_placed file folder component)
  set(template ${CMAKE_CURRENT_SOURCE_DIR}/${file}.in)
  cmake_path(GET file FILENAME name)
  set(PLACE ${PROJECT_BINARY_DIR})
  configure_file(${template} ${PROJECT_BINARY_DIR}/${folder}/${name} @ONLY)
  set(variables "set(PLACE \"\${CMAKE_INSTALL_PREFIX}\")\n")
  foreach(variable CMAKE_INSTALL_BINDIR CMAKE_INSTALL_LIBEXECDIR)
    string(APPEND variables "set(${variable} \"${${variable}}\")\n")
  endforeach()
  set(placed ${CMAKE_CURRENT_BINARY_DIR}/placed/${name})
  install(CODE "${variables}configure_file(\"${template}\" \"${placed}\" @ONLY)" COMPONENT ${component})
  install(FILES ${placed} DESTINATION ${folder} COMPONENT ${component})
endfunction()
