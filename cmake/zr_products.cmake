# What is built from the layers and installed: the shared library for host programs, the C++ interface
# shared and static, the public headers, a CMake package and pkg-config files.
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

# The C++ interface, in both forms: the objects of every layer. Only what the public headers declare is
# visible outside of the shared one.
get_property(zr_layers GLOBAL PROPERTY ZR_LAYERS)
set(zr_objects)
foreach(layer IN LISTS zr_layers)
  list(APPEND zr_objects $<TARGET_OBJECTS:${layer}>)
endforeach()
set(zr_server_exports ${PROJECT_SOURCE_DIR}/cmake/velkoro-server.map)
add_library(velkoro-server SHARED ${zr_objects})
target_link_options(velkoro-server PRIVATE -Wl,--version-script=${zr_server_exports} -Wl,-z,defs
                                           -Wl,--gc-sections)
set_target_properties(velkoro-server PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 1
                      LINK_DEPENDS ${zr_server_exports} EXPORT_NAME server)
add_library(velkoro-server-static STATIC ${zr_objects})
set_target_properties(velkoro-server-static PROPERTIES OUTPUT_NAME velkoro-server
                      EXPORT_NAME server_static)
foreach(form velkoro-server velkoro-server-static)
  target_link_libraries(${form} PRIVATE OpenSSL::SSL OpenSSL::Crypto ZLIB::ZLIB PkgConfig::BROTLIENC
                                        Threads::Threads)
  target_include_directories(${form} INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                                               $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(${form} INTERFACE cxx_std_20)
  set_target_properties(${form} PROPERTIES LINKER_LANGUAGE CXX)
endforeach()
add_library(velkoro::server ALIAS velkoro-server)
add_library(velkoro::server_static ALIAS velkoro-server-static)

install(TARGETS velkoro velkoro-server velkoro-server-static EXPORT velkoro-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/velkoro DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.h")

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
configure_file(cmake/velkoro-server.pc.in velkoro-server.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velkoro.pc ${CMAKE_CURRENT_BINARY_DIR}/velkoro-server.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
