# Install rules, CMake package, pkg-config file and Debian package.
include(CMakePackageConfigHelpers)

install(TARGETS kormomav EXPORT kormomavTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        NAMELINK_COMPONENT dev)
set(_kormo_headers
    ${CMAKE_SOURCE_DIR}/sec/mav/include/kormomav.h
    ${CMAKE_SOURCE_DIR}/sec/mav/include/kormopel.h)
if(EXISTS ${CMAKE_SOURCE_DIR}/sec/mav/include/mavprofile.h)
  list(APPEND _kormo_headers ${CMAKE_SOURCE_DIR}/sec/mav/include/mavprofile.h)
endif()
install(FILES ${_kormo_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kormomav)

foreach(adapter kormopel kormoclamd)
  if(TARGET ${adapter})
    install(TARGETS ${adapter} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  endif()
endforeach()
if(TARGET mavscan)
  install(TARGETS mavscan RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${CMAKE_SOURCE_DIR}/tools/mavscan/mavscan.1
          DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
if(KORMO_JAR)
  install(FILES "${KORMO_JAR}" DESTINATION ${CMAKE_INSTALL_DATADIR}/java OPTIONAL)
endif()

install(EXPORT kormomavTargets NAMESPACE kormomav::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kormomav)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/kormomavConfig.cmake.in
    ${CMAKE_BINARY_DIR}/kormomavConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kormomav)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/kormomavConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/kormomavConfig.cmake
              ${CMAKE_BINARY_DIR}/kormomavConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kormomav)

configure_file(${CMAKE_SOURCE_DIR}/cmake/kormomav.pc.in ${CMAKE_BINARY_DIR}/kormomav.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/kormomav.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kormomav)
set(CPACK_PACKAGE_VENDOR "libkormomav")
set(CPACK_PACKAGE_CONTACT "libkormomav maintainers <maintainers@kormomav.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "One C interface in front of virus-scanning engines")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
include(CPack)
