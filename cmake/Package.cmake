# What `cmake --install` leaves for other CMake projects: the targets as
# osk::<name> and a package configuration for find_package(osk).
include(CMakePackageConfigHelpers)

set(OSK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/osk)
install(EXPORT oskTargets NAMESPACE osk:: DESTINATION ${OSK_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/oskConfig.cmake.in
  ${PROJECT_BINARY_DIR}/oskConfig.cmake INSTALL_DESTINATION ${OSK_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/oskConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/oskConfig.cmake ${PROJECT_BINARY_DIR}/oskConfigVersion.cmake
        DESTINATION ${OSK_CMAKE_DIR})
