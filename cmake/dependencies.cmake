# The libraries that several directories link. fmt is taken as headers alone: Debian has no static one, and a shared one
# would be mapped for as long as the daemon runs.
find_package(Threads REQUIRED)
find_package(Python3 REQUIRED COMPONENTS Interpreter) # while building: see src/pages

# toml++ likewise; the target of its own package is the shared library.
add_library(qel_toml INTERFACE)

if(NOT CMAKE_CROSSCOMPILING)
  find_package(fmt REQUIRED)
  find_path(QEL_TOML_HEADERS toml++/toml.h REQUIRED)
  target_include_directories(qel_toml SYSTEM INTERFACE ${QEL_TOML_HEADERS})
  find_package(CLI11 REQUIRED)
  find_package(nlohmann_json REQUIRED)
  find_package(OpenSSL 3.0 REQUIRED COMPONENTS Crypto SSL)
  find_package(PkgConfig REQUIRED) # the HTTP library has no other description; its classes depend on its definitions
  pkg_check_modules(httplib REQUIRED IMPORTED_TARGET cpp-httplib)
  if(QEL_TESTS)
    find_package(GTest REQUIRED)
  endif()
  return()
endif()

# A cross build takes the header-only libraries from the host: through links, since the host's include directory would
# bring its C library's headers along.
set(headers ${CMAKE_BINARY_DIR}/host-headers)
file(MAKE_DIRECTORY ${headers})
foreach(entry fmt toml++ CLI nlohmann)
  file(CREATE_LINK /usr/include/${entry} ${headers}/${entry} SYMBOLIC)
endforeach()
foreach(library fmt::fmt-header-only CLI11::CLI11 nlohmann_json::nlohmann_json)
  add_library(${library} INTERFACE IMPORTED)
  target_include_directories(${library} INTERFACE ${headers})
endforeach()
target_include_directories(qel_toml SYSTEM INTERFACE ${headers})
target_compile_definitions(fmt::fmt-header-only INTERFACE FMT_HEADER_ONLY=1)

set(OPENSSL_ROOT_DIR ${QEL_CROSS_DEPENDENCIES})
set(OPENSSL_USE_STATIC_LIBS TRUE)
find_package(OpenSSL 3.0 REQUIRED COMPONENTS Crypto SSL)
if(QEL_TESTS)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
endif()
