include(CMakePackageConfigHelpers)

install(TARGETS qel kronlog EXPORT KronlogTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/qel ${PROJECT_SOURCE_DIR}/include/kronlog
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(KRONLOG_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Kronlog)
install(EXPORT KronlogTargets NAMESPACE Kronlog:: DESTINATION ${KRONLOG_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KronlogConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KronlogConfig.cmake INSTALL_DESTINATION ${KRONLOG_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KronlogConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KronlogConfig.cmake ${PROJECT_BINARY_DIR}/KronlogConfigVersion.cmake
  DESTINATION ${KRONLOG_CMAKE_DIR})

configure_file(${PROJECT_SOURCE_DIR}/cmake/kronlog.pc.in ${PROJECT_BINARY_DIR}/kronlog.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kronlog.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
