# `cmake --install`: headers, both libraries, the PDB, and a package that find_package(VlmCore) finds.
include(CMakePackageConfigHelpers)

install(TARGETS VlmCore VlmCoreStatic
  EXPORT VlmCoreTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/include/vlmcore DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
if(WIN32 AND PROJECT_IS_TOP_LEVEL)
  install(FILES ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/VlmCore.pdb DESTINATION ${CMAKE_INSTALL_BINDIR} OPTIONAL)
endif()
install(EXPORT VlmCoreTargets NAMESPACE VlmCore:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/VlmCore)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VlmCoreConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/VlmCoreConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/VlmCore)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/VlmCoreConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/VlmCoreConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/VlmCoreConfigVersion.cmake
  ${CMAKE_CURRENT_LIST_DIR}/VlmCoreResources.cmake ${CMAKE_CURRENT_LIST_DIR}/VlmCoreResources.cpp.in
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/VlmCore)
