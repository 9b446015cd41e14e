# install_placed(FILE FOLDER COMPONENT): installs a file made from FILE.in, in which @PLACE@ is the installation
# prefix. The file is made during installation, when the prefix is known. The build tree gets its own file, with its
# own path as @PLACE@.
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
