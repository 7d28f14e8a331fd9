# What `cmake --install` puts where. The components are named as Debian's packages. The operator's list is not among it:
# an install must never touch that.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Below the prefix unless they are absolute.
set(QEL_UNIT_DIR lib/systemd/system CACHE STRING "Where the systemd unit goes")
set(QEL_SYSUSERS_DIR lib/sysusers.d CACHE STRING "Where the daemon's user is declared")
set(QEL_TMPFILES_DIR lib/tmpfiles.d CACHE STRING "Where the runtime directory is declared")
set(QEL_PYTHON_DIR lib/python3/dist-packages CACHE STRING "Where the Python module goes")

# Fills in the paths of a template when it is installed, since `cmake --install --prefix` may name another place than
# the configuration did.
function(install_filled template name destination component)
  set(code "set(VERSION [[${PROJECT_VERSION}]])\nset(QEL_FEATURE_LIST [[${QEL_FEATURE_LIST}]])\n")
  foreach(directory BINDIR LIBDIR INCLUDEDIR DOCDIR)
    string(APPEND code "set(${directory} [[${CMAKE_INSTALL_${directory}}]])\n"
                       "cmake_path(ABSOLUTE_PATH ${directory} BASE_DIRECTORY \${CMAKE_INSTALL_PREFIX})\n")
  endforeach()
  set(filled ${CMAKE_BINARY_DIR}/installed/${name})
  install(CODE "${code}configure_file([[${PROJECT_SOURCE_DIR}/${template}]] [[${filled}]] @ONLY)" COMPONENT ${component})
  install(FILES ${filled} DESTINATION ${destination} COMPONENT ${component})
endfunction()

# The daemon, at the one place where it finds its module, and what the host has to know of it.
install(TARGETS qelserver qelctl RUNTIME COMPONENT qelserver)
install(TARGETS qelsign LIBRARY DESTINATION ${CMAKE_INSTALL_BINDIR}/../lib/qel COMPONENT qelserver)
install_filled(packaging/qelserver.service.in qelserver.service ${QEL_UNIT_DIR} qelserver)
install(FILES packaging/qelserver.sysusers DESTINATION ${QEL_SYSUSERS_DIR} RENAME qelserver.conf COMPONENT qelserver)
install(FILES packaging/qelserver.tmpfiles DESTINATION ${QEL_TMPFILES_DIR} RENAME qelserver.conf COMPONENT qelserver)
install(FILES packaging/qelserver.logrotate DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/logrotate.d RENAME qelserver
        COMPONENT qelserver)
install(FILES examples/features.toml examples/descriptions.csv DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
        COMPONENT qelserver)

# The page for a browser, where it can be built.
if(TARGET qelweb)
  install(TARGETS qelweb RUNTIME COMPONENT qelweb)
  install_filled(packaging/qelweb.service.in qelweb.service ${QEL_UNIT_DIR} qelweb)
endif()

# The link to a fleet.
if(TARGET qelagent)
  install(TARGETS qelagent RUNTIME COMPONENT qelagent)
  install_filled(packaging/qelagent.service.in qelagent.service ${QEL_UNIT_DIR} qelagent)
  install(FILES packaging/qelagent.sysusers DESTINATION ${QEL_SYSUSERS_DIR} RENAME qelagent.conf COMPONENT qelagent)
  install(FILES packaging/qelagent.tmpfiles DESTINATION ${QEL_TMPFILES_DIR} RENAME qelagent.conf COMPONENT qelagent)
  install(FILES examples/agent.toml examples/broker.conf examples/broker.acl DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
          COMPONENT qelagent)
endif()

# What qelctl fleet starts, in the directory of the module: nobody starts it by hand.
if(TARGET qelctl-fleet)
  install(TARGETS qelctl-fleet RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}/../lib/qel COMPONENT qelfleet)
endif()

# The library. The static one is a file to us: its target differs with the platform and the sanitizers.
set(archive qelclient_static)
if(TARGET qelclient_archive)
  set(archive qelclient_archive)
endif()
install(TARGETS qelclient LIBRARY COMPONENT libqelclient0 NAMELINK_COMPONENT libqelclient-dev)
install(FILES $<TARGET_FILE:${archive}> DESTINATION ${CMAKE_INSTALL_LIBDIR} RENAME libqelclient.a COMPONENT libqelclient-dev)
install(DIRECTORY src/client/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT libqelclient-dev
        FILES_MATCHING PATTERN qelclient.h PATTERN qelclient.hpp)
install(FILES examples/component.cpp DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT libqelclient-dev)
set(config ${CMAKE_INSTALL_LIBDIR}/cmake/qelclient)
install_filled(cmake/qelclient.pc.in qelclient.pc ${CMAKE_INSTALL_LIBDIR}/pkgconfig libqelclient-dev)
install_filled(cmake/qelclientConfig.cmake.in qelclientConfig.cmake ${config} libqelclient-dev)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/installed/qelclientConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/installed/qelclientConfigVersion.cmake DESTINATION ${config} COMPONENT libqelclient-dev)

if(EXISTS ${PROJECT_SOURCE_DIR}/python/qelclient)
  install(DIRECTORY python/qelclient DESTINATION ${QEL_PYTHON_DIR} COMPONENT python3-qelclient
          FILES_MATCHING PATTERN *.py PATTERN py.typed PATTERN __pycache__ EXCLUDE)
endif()

install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT qelserver-doc)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT qelserver-doc FILES_MATCHING PATTERN *.md)
