# What is built from the layers and installed: the shared library for host programs, the static
# library with the whole C++ interface, their headers, a CMake package and pkg-config files.
include(CMakePackageConfigHelpers)

# libvelkoro.so: three functions and nothing else. The objects of the host layer stand in it as they
# are (nothing would pull them out of an archive); the layers below come in as they are needed.
add_library(velkoro SHARED $<TARGET_OBJECTS:zr_host>)
target_link_libraries(velkoro PRIVATE zr_options $<BUILD_INTERFACE:zr_host>)
target_include_directories(velkoro INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                             $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
set(zr_exports ${PROJECT_SOURCE_DIR}/cmake/velkoro.map)
target_link_options(velkoro PRIVATE -Wl,--version-script=${zr_exports} -Wl,-z,defs
                                    -Wl,--gc-sections)
set_target_properties(velkoro PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 1
                                         LINK_DEPENDS ${zr_exports} EXPORT_NAME host)
add_library(velkoro::host ALIAS velkoro)

# libvelkoro-core.a: the objects of every layer in one archive.
get_property(zr_layers GLOBAL PROPERTY ZR_LAYERS)
set(zr_objects)
foreach(layer IN LISTS zr_layers)
  list(APPEND zr_objects $<TARGET_OBJECTS:${layer}>)
endforeach()
add_library(velkoro-core STATIC ${zr_objects})
target_link_libraries(velkoro-core PRIVATE OpenSSL::SSL OpenSSL::Crypto ZLIB::ZLIB PkgConfig::BROTLIENC
                                           Threads::Threads)
target_include_directories(
  velkoro-core INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>
                         $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                         $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
                         $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/velkoro/core>)
target_compile_features(velkoro-core INTERFACE cxx_std_20)
set_target_properties(velkoro-core PROPERTIES LINKER_LANGUAGE CXX EXPORT_NAME core)
add_library(velkoro::core ALIAS velkoro-core)

install(TARGETS velkoro velkoro-core EXPORT velkoro-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/velkoro DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")
install(DIRECTORY src/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velkoro/core
        FILES_MATCHING PATTERN "*.h" PATTERN "cli" EXCLUDE PATTERN "posix" EXCLUDE)

set(zr_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/velkoro)
install(EXPORT velkoro-targets NAMESPACE velkoro:: DESTINATION ${zr_package_dir})
configure_package_config_file(cmake/velkoro-config.cmake.in velkoro-config.cmake
                              INSTALL_DESTINATION ${zr_package_dir})
write_basic_package_version_file(velkoro-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velkoro-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/velkoro-config-version.cmake
        DESTINATION ${zr_package_dir})
# The package finds its files from where it lies, so the installed tree may be moved.
file(RELATIVE_PATH zr_up "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(cmake/velkoro.pc.in velkoro.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velkoro.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
