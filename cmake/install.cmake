# Install rules, CMake package and pkg-config file (Debian packages: debian/).
#   lib:     libkormomav.so.1.1.0 with its SONAME link (the .so link: component dev);
#            the adapters (libkormopel.so, the ClamAV one, libkormoclamd.so, ...) in
#            the private folder lib/kormomav/, where the library looks for its
#            default adapter after its own folder
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

foreach(adapter kormopel kormoclamd kormoyara kormoicap)
  if(TARGET ${adapter})
    install(TARGETS ${adapter} LIBRARY DESTINATION ${KORMO_ADAPTER_DIR} COMPONENT ${adapter})
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

# Section-3 pages of the C interface, made from the header's comments
# (scripts/man3.py), for the development files.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_Interpreter_FOUND)
  set(KORMO_MAN3_DIR ${CMAKE_BINARY_DIR}/man3)
  add_custom_command(OUTPUT ${KORMO_MAN3_DIR}/kormomav.3
      COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/scripts/man3.py
              ${CMAKE_SOURCE_DIR}/sec/mav/include/kormomav.h ${KORMO_MAN3_DIR} ${PROJECT_VERSION}
      DEPENDS ${CMAKE_SOURCE_DIR}/scripts/man3.py ${CMAKE_SOURCE_DIR}/sec/mav/include/kormomav.h
      COMMENT "Manual pages of the C interface")
  add_custom_target(kormomav_man3 ALL DEPENDS ${KORMO_MAN3_DIR}/kormomav.3)
  install(DIRECTORY ${KORMO_MAN3_DIR}/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
          COMPONENT dev FILES_MATCHING PATTERN "*.3")
endif()
