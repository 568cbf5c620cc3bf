# Installs the Flutter sources of BUILD, configures and builds the host application APP with them into OUT, bundles it and
# runs it from its bundle: the plug-in as an application gets it. LAUNCHER may be empty.
set(launcher)
if(LAUNCHER)
  set(launcher -DCMAKE_C_COMPILER_LAUNCHER=${LAUNCHER} -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER})
endif()
find_program(CLANG clang)
find_program(CLANGXX clang++)
if(CLANG AND CLANGXX)
  # What the tool takes.
  set(ENV{CC} ${CLANG})
  set(ENV{CXX} ${CLANGXX})
endif()
# Nothing of an earlier run: there may have been more in it, and it may have been configured to install elsewhere.
file(REMOVE_RECURSE ${OUT})
unset(ENV{DESTDIR})
set(links ${OUT}/plugin_links)
file(MAKE_DIRECTORY ${links})
file(REMOVE ${links}/flutter_mirn)
file(CREATE_LINK ${OUT}/installed/share/flutter-mirn ${links}/flutter_mirn SYMBOLIC)
set(bundle ${OUT}/bundle)
foreach(step
    "${CMAKE_COMMAND};--install;${BUILD};--component;flutter-sources;--prefix;${OUT}/installed"
    "${CMAKE_COMMAND};-G;Ninja;-DCMAKE_BUILD_TYPE=Debug;-DFLUTTER_PLUGIN_SYMLINKS=${links};${launcher};-S;${APP};-B;${OUT}"
    "${CMAKE_COMMAND};--build;${OUT};--parallel;2;--target;install")
  execute_process(COMMAND ${step} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed: ${step}")
  endif()
endforeach()

# The program and the two libraries: nothing that the plug-in's own project installs elsewhere.
file(GLOB_RECURSE bundled RELATIVE ${bundle} ${bundle}/*)
list(SORT bundled)
set(expected flutter_mirn_example lib/libflutter_linux_gtk.so lib/libflutter_mirn_plugin.so)
if(NOT bundled STREQUAL expected)
  message(FATAL_ERROR "the bundle has ${bundled}\nand not         ${expected}")
endif()

# Elsewhere, as on another machine: what it needs comes along.
set(moved ${OUT}/moved)
file(REMOVE_RECURSE ${moved})
file(RENAME ${bundle} ${moved})
execute_process(COMMAND ${moved}/flutter_mirn_example ${moved}/lib/libflutter_mirn_plugin.so RESULT_VARIABLE result
                TIMEOUT 300)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "the bundled program failed: ${result}")
endif()
