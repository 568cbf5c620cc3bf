# Configures, builds, installs nothing and runs the host application: APP, OUT, LAUNCHER (may be empty).
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
foreach(step
    "${CMAKE_COMMAND};-G;Ninja;-DCMAKE_BUILD_TYPE=Debug;${launcher};-S;${APP};-B;${OUT}"
    "${CMAKE_COMMAND};--build;${OUT};--parallel;2"
    "${OUT}/intermediates_do_not_run/flutter_mirn_example")
  execute_process(COMMAND ${step} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed: ${step}")
  endif()
endforeach()
