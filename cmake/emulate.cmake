# Where tests and demonstrations find programs that can be started by their path alone. Under emulation each is a link
# to the script that becomes the emulator.
set(QEL_RUN_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
if(CMAKE_CROSSCOMPILING)
  set(QEL_RUN_DIRECTORY ${CMAKE_BINARY_DIR}/emulated)
  file(MAKE_DIRECTORY ${QEL_RUN_DIRECTORY})
  foreach(program qelserver qelctl qelagent example-component voice-c voice-cpp test_server test_features)
    file(CREATE_LINK ${CMAKE_CROSSCOMPILING_EMULATOR} ${QEL_RUN_DIRECTORY}/${program} SYMBOLIC)
  endforeach()

  # The other side of a conversation of two byte orders: programs of the machine itself, from its own build tree.
  set(QEL_NATIVE_TREE ${PROJECT_SOURCE_DIR}/build/release CACHE PATH "Build tree of the machine itself")
  set(mixed ${CMAKE_BINARY_DIR}/mixed)
  file(MAKE_DIRECTORY ${mixed})
  file(CREATE_LINK ${CMAKE_CROSSCOMPILING_EMULATOR} ${mixed}/qelserver SYMBOLIC)
  foreach(program qelctl example-component)
    file(CREATE_LINK ${QEL_NATIVE_TREE}/bin/${program} ${mixed}/${program} SYMBOLIC)
  endforeach()
endif()
