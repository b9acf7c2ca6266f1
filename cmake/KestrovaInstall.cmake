# What `cmake --install` puts where, and the Debian package of it.
include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/Kestrova)
set(made ${CMAKE_CURRENT_BINARY_DIR}/install)

# Libraries, and how CMake finds them. Two sets of targets, so that a host of the shared library needs nothing of what is in it.
foreach(kind static shared)
  install(TARGETS kestrova_${kind} EXPORT Kestrova-${kind} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
                                                          LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(EXPORT Kestrova-${kind} FILE Kestrova-${kind}.cmake NAMESPACE Kestrova:: DESTINATION ${package_folder})
endforeach()
configure_package_config_file(${Kestrova_SOURCE_DIR}/packaging/KestrovaConfig.cmake.in ${made}/KestrovaConfig.cmake
                              INSTALL_DESTINATION ${package_folder} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${made}/KestrovaConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${made}/KestrovaConfig.cmake ${made}/KestrovaConfigVersion.cmake ${Kestrova_SOURCE_DIR}/cmake/KestrovaConstants.cmake
        DESTINATION ${package_folder})
install(DIRECTORY ${Kestrova_SOURCE_DIR}/cmake/constants DESTINATION ${package_folder})

# Public headers.
foreach(header ${KESTROVA_PUBLIC_HEADERS})
  cmake_path(GET header PARENT_PATH room)
  if(room STREQUAL capi)
    set(room "")
  endif()
  install(FILES ${Kestrova_SOURCE_DIR}/src/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kestrova/${room})
endforeach()

# pkg-config finds everything from where its own file lies, so that the installed tree may be moved.
cmake_path(SET pkgconfig_folder /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig)
cmake_path(RELATIVE_PATH pkgconfig_folder BASE_DIRECTORY /prefix OUTPUT_VARIABLE from_prefix)
string(REGEX REPLACE "[^/]+" ".." KESTROVA_PREFIX_FROM_PKGCONFIG ${from_prefix})
foreach(name kestrova kestrova-static)
  configure_file(${Kestrova_SOURCE_DIR}/packaging/${name}.pc.in ${made}/${name}.pc @ONLY)
  install(FILES ${made}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# Programs, and the transfer service's units, which name it by the place where this very installation puts it.
if(KESTROVA_BUILD_PROGRAMS)
  install(TARGETS kestrova kestrova-devserver kestrova-transferd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(CODE "
    set(CMAKE_INSTALL_FULL_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
    set(CMAKE_INSTALL_FULL_DOCDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DOCDIR}\")
    configure_file(\"${Kestrova_SOURCE_DIR}/packaging/kestrova-transferd.service.in\" \"${made}/kestrova-transferd.service\" @ONLY)")
  install(FILES ${made}/kestrova-transferd.service ${Kestrova_SOURCE_DIR}/packaging/kestrova-transferd.path
          DESTINATION lib/systemd/user)
  install(DIRECTORY ${Kestrova_SOURCE_DIR}/packaging/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 FILES_MATCHING PATTERN *.1)
  install(FILES ${Kestrova_SOURCE_DIR}/examples/gif-app-events.jsonl DESTINATION ${CMAKE_INSTALL_DATADIR}/kestrova/examples)  # of the demo
  install(FILES ${Kestrova_SOURCE_DIR}/packaging/completion/kestrova DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endif()

install(FILES ${Kestrova_SOURCE_DIR}/README.md ${Kestrova_SOURCE_DIR}/CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY ${Kestrova_SOURCE_DIR}/docs DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY ${Kestrova_SOURCE_DIR}/examples/c ${Kestrova_SOURCE_DIR}/examples/python DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

# The Debian package: all of it, below /usr. What the programs and the shared library need is found from what they link; what the
# static library needs is only suggested.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kestrova)
set(CPACK_PACKAGE_VENDOR "Kestrova")
set(CPACK_PACKAGE_CONTACT "Kestrova <packages@kestrova.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Data and networking core of an app SDK")
string(JOIN "\n" CPACK_PACKAGE_DESCRIPTION
       "Turns what an application's users do into event records and gets them to"
       "an HTTPS API with signed requests; what cannot be delivered waits on disk."
       "With the libraries, static and shared, their headers, the background"
       "transfer service, a host application for people and scripts, and a"
       "development server.")
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${Kestrova_SOURCE_DIR}/packaging/CompressManuals.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "g++, pkg-config, libcurl4-openssl-dev, libssl-dev")
include(CPack)
