# install_placed(FILE FOLDER COMPONENT): installs a file that names the programs' place, from FILE.in, where
# @PLACE@ is the prefix. It is made as it is installed, since only then the prefix is known. The build tree has
# one of its own.
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
