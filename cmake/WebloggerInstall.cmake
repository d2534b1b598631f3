include(CMakePackageConfigHelpers)

install(TARGETS weblogger EXPORT webloggerTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY inc/zq DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
# Only the public headers: what a host includes to log, and what a writer author builds on.
# project/weblogger/internal/ is the library's own business and is not installed.
install(DIRECTORY project/weblogger DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h"
    PATTERN "internal" EXCLUDE)
install(EXPORT webloggerTargets NAMESPACE weblogger:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/weblogger)

configure_package_config_file(cmake/webloggerConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/webloggerConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/weblogger)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/webloggerConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/webloggerConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/webloggerConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/weblogger)

configure_file(cmake/weblogger.pc.in ${CMAKE_CURRENT_BINARY_DIR}/weblogger.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/weblogger.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
