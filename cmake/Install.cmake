# cmake --install: the public header, libzem_sdk.so, a CMake package
# (find_package(zem_sdk CONFIG) gives zem_sdk::zem_sdk), a pkg-config file,
# and the development tools zemd, zemdump and zemctl with the KPI catalog's
# schema.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Debian keeps the Android liblog and libutils outside the default library
# path; the installed library finds them through its run path.
get_filename_component(_zem_android_libdir ${ZEM_LIBLOG} DIRECTORY)
set_target_properties(zem_sdk PROPERTIES INSTALL_RPATH "${_zem_android_libdir}")

install(TARGETS zem_sdk EXPORT zem_sdkTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/zem_sdk.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set_target_properties(zemd zemdump zemctl PROPERTIES INSTALL_RPATH "${_zem_android_libdir}")
install(TARGETS zemd zemdump zemctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES tools/catalog.proto DESTINATION ${CMAKE_INSTALL_DATADIR}/zem_sdk)

set(_zem_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zem_sdk)
install(EXPORT zem_sdkTargets NAMESPACE zem_sdk:: DESTINATION ${_zem_cmake_dir})
configure_package_config_file(cmake/zem_sdkConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/zem_sdkConfig.cmake INSTALL_DESTINATION ${_zem_cmake_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zem_sdkConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zem_sdkConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/zem_sdkConfigVersion.cmake
        DESTINATION ${_zem_cmake_dir})

# The .pc file sits in <libdir>/pkgconfig: one ".." per level of libdir.
string(REGEX REPLACE "[^/]+" ".." _zem_up "${CMAKE_INSTALL_LIBDIR}")
set(ZEM_PC_UP "${_zem_up}/")
configure_file(cmake/zem_sdk.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zem_sdk.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zem_sdk.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
