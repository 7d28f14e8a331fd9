# What every target of ours is compiled with. Link qel_flags privately. Warnings are errors in the presets
# (CMAKE_COMPILE_WARNING_AS_ERROR), so that a compiler newer than ours still builds the project.
add_library(qel_flags INTERFACE)
target_compile_options(qel_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -fno-strict-aliasing
  # At -O3, GCC 12 takes the library's own operator+ of a literal and a string for a copy onto itself.
  $<$<AND:$<CONFIG:Release>,$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
# The stamps and timeouts of a 32-bit build outlive 2038.
target_compile_definitions(qel_flags INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_include_directories(qel_flags INTERFACE ${PROJECT_SOURCE_DIR}/src)

if(QEL_SANITIZE)
  add_compile_options(-fsanitize=${QEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QEL_SANITIZE})
else()
  # Only what is called is kept: the executable lives on a small appliance.
  add_compile_options(-ffunction-sections -fdata-sections)
  add_link_options(-Wl,--gc-sections)
endif()

# For the daemon and the module that it loads: they hold what they use of the C++ runtime. The shared one had a daemon at
# rest take 4.2 MiB instead of 2.8, and its relocations half a millisecond of the start. The sanitizers want it, though.
add_library(qel_own_runtime INTERFACE)
if(NOT QEL_SANITIZE)
  target_link_options(qel_own_runtime INTERFACE -static-libstdc++ -static-libgcc)
endif()
