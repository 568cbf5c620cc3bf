# Installs the Flutter sources of BUILD, configures and builds the host application APP with them into OUT, and runs it:
# the plug-in as an application gets it. LAUNCHER may be empty.
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
# Nothing of an earlier installation, in which there may have been more.
file(REMOVE_RECURSE ${OUT}/installed)
unset(ENV{DESTDIR})
set(links ${OUT}/plugin_links)
file(MAKE_DIRECTORY ${links})
file(REMOVE ${links}/flutter_mirn)
file(CREATE_LINK ${OUT}/installed/share/flutter-mirn ${links}/flutter_mirn SYMBOLIC)
foreach(step
    "${CMAKE_COMMAND};--install;${BUILD};--component;flutter-sources;--prefix;${OUT}/installed"
    "${CMAKE_COMMAND};-G;Ninja;-DCMAKE_BUILD_TYPE=Debug;-DFLUTTER_PLUGIN_SYMLINKS=${links};${launcher};-S;${APP};-B;${OUT}"
    "${CMAKE_COMMAND};--build;${OUT};--parallel;2"
    "${OUT}/intermediates_do_not_run/flutter_mirn_example")
  execute_process(COMMAND ${step} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed: ${step}")
  endif()
endforeach()
