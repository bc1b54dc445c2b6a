# cmake --install: the runtime and librk with their public headers in one directory
# (include/autoteza), the generator, tezad and the tools, the CMake package autoteza (targets
# teza::autotezagenerator, teza::autotezafleet and teza::rk, and teza_generate) and the
# pkg-config file.

include(CMakePackageConfigHelpers)

set(TEZA_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/autoteza)
set(TEZA_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/autoteza)
set(TEZA_INSTALL_GENDIR ${CMAKE_INSTALL_DATADIR}/autoteza/teza-gen)

install(TARGETS rk autotezagenerator autotezafleet EXPORT autotezaTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

file(GLOB teza_public_headers ${PROJECT_SOURCE_DIR}/libs/dynamic/autoteza/generator/extinc/*.h
  ${PROJECT_SOURCE_DIR}/libs/dynamic/autoteza/fleet/extinc/*.h)
install(FILES ${teza_public_headers} ${PROJECT_SOURCE_DIR}/libs/dynamic/rk/include/rk.h
  DESTINATION ${TEZA_INSTALL_INCLUDEDIR})

# The generator finds its package and templates next to its real path, so bin/teza-gen is a
# link into the generator's directory.
install(PROGRAMS ${PROJECT_SOURCE_DIR}/tools/teza-gen/teza-gen DESTINATION ${TEZA_INSTALL_GENDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/tools/teza-gen/tezagen
  DESTINATION ${TEZA_INSTALL_GENDIR} FILES_MATCHING PATTERN "*.py")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/tools/teza-gen/templates
  DESTINATION ${TEZA_INSTALL_GENDIR} FILES_MATCHING PATTERN "*.j2")
file(RELATIVE_PATH teza_gen_link_target
  /${CMAKE_INSTALL_BINDIR} /${TEZA_INSTALL_GENDIR}/teza-gen)
install(CODE "
  set(dest \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  file(MAKE_DIRECTORY \"\${dest}\")
  file(CREATE_LINK \"${teza_gen_link_target}\" \"\${dest}/teza-gen\" SYMBOLIC)
  message(STATUS \"Installing: \${dest}/teza-gen -> ${teza_gen_link_target}\")")

install(EXPORT autotezaTargets NAMESPACE teza:: DESTINATION ${TEZA_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/autotezaConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/autotezaConfig.cmake
  INSTALL_DESTINATION ${TEZA_INSTALL_CMAKEDIR}
  PATH_VARS TEZA_INSTALL_INCLUDEDIR CMAKE_INSTALL_BINDIR TEZA_INSTALL_GENDIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/autotezaConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/autotezaConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/autotezaConfigVersion.cmake
  ${PROJECT_SOURCE_DIR}/cmake/TezaGenerate.cmake
  DESTINATION ${TEZA_INSTALL_CMAKEDIR})

# Relative to the file's own place, so that the tree works wherever it is installed.
file(RELATIVE_PATH TEZA_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" TEZA_PC_TO_PREFIX "${TEZA_PC_TO_PREFIX}")
configure_file(cmake/autoteza.pc.in ${CMAKE_CURRENT_BINARY_DIR}/autoteza.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/autoteza.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
