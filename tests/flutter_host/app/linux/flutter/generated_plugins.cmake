# As the tool writes it for an application that uses the plug-in.
list(APPEND FLUTTER_PLUGIN_LIST
  flutter_mirn
)

list(APPEND FLUTTER_FFI_PLUGIN_LIST
)

set(PLUGIN_BUNDLED_LIBRARIES)

if(NOT FLUTTER_PLUGIN_SYMLINKS)
  set(FLUTTER_PLUGIN_SYMLINKS "${CMAKE_CURRENT_BINARY_DIR}/flutter/ephemeral/.plugin_symlinks")
endif()
foreach(plugin ${FLUTTER_PLUGIN_LIST})
  # The tool has made this link to the plug-in's package.
  file(MAKE_DIRECTORY "${FLUTTER_PLUGIN_SYMLINKS}")
  if(NOT EXISTS "${FLUTTER_PLUGIN_SYMLINKS}/${plugin}")
    get_filename_component(package "${CMAKE_CURRENT_SOURCE_DIR}/../../../.." ABSOLUTE)
    file(CREATE_LINK "${package}" "${FLUTTER_PLUGIN_SYMLINKS}/${plugin}" SYMBOLIC)
  endif()
  add_subdirectory("${FLUTTER_PLUGIN_SYMLINKS}/${plugin}/linux" "plugins/${plugin}")
  target_link_libraries(${BINARY_NAME} PRIVATE ${plugin}_plugin)
  list(APPEND PLUGIN_BUNDLED_LIBRARIES $<TARGET_FILE:${plugin}_plugin>)
  list(APPEND PLUGIN_BUNDLED_LIBRARIES ${${plugin}_bundled_libraries})
endforeach(plugin)
