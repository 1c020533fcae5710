# Install rules, CMake package, pkg-config file and Debian package.
#   lib:     libkormomav.so.1.1.0 with its SONAME link (the .so link: component dev),
#            the adapters libkormopel.so (ClamAV) and libkormoclamd.so beside it,
#            where the library looks for its default adapter ($ORIGIN)
#   include: kormomav/kormomav.h, kormoexport.h, kormotypes.h, kormopel.h, mavprofile.h
#   bin:     mavscan (run path $ORIGIN/../lib...), man1/mavscan.1
#   share:   java/kormomav.jar (java/CMakeLists.txt)
# Both package files are relocatable: `cmake --install --prefix DIR` works.
include(CMakePackageConfigHelpers)

install(TARGETS kormomav EXPORT kormomavTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT dev)
install(FILES ${CMAKE_SOURCE_DIR}/sec/mav/include/kormomav.h
              ${CMAKE_SOURCE_DIR}/sec/mav/include/kormoexport.h
              ${CMAKE_SOURCE_DIR}/sec/mav/include/kormotypes.h
              ${CMAKE_SOURCE_DIR}/sec/mav/include/kormopel.h
              ${CMAKE_SOURCE_DIR}/sec/mav/include/mavprofile.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kormomav)

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

# CMake package: find_package(kormomav) gives kormomav::kormomav.
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

# pkg-config: the prefix is found from the file's own place.
file(RELATIVE_PATH KORMO_PC_TO_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
string(REGEX REPLACE "/$" "" KORMO_PC_TO_PREFIX "${KORMO_PC_TO_PREFIX}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/kormomav.pc.in ${CMAKE_BINARY_DIR}/kormomav.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/kormomav.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Debian package (cpack -G DEB in the build directory).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kormomav)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "libkormomav")
set(CPACK_PACKAGE_CONTACT "libkormomav maintainers <maintainers@kormomav.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "One C interface in front of virus-scanning engines")
set(CPACK_PACKAGE_DESCRIPTION
    "libkormomav loads a virus-scanning engine through an adapter and offers one C\n"
    "interface, a profile runtime and a Java bridge in front of it. The package holds\n"
    "the library, its headers, the ClamAV and clamd adapters, the mavscan command\n"
    "and the CMake and pkg-config files.")
string(REPLACE ";" "" CPACK_PACKAGE_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "clamav-freshclam, clamav-daemon")
include(CPack)
