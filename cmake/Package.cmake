# What a host needs to link the installed library: CMake package and pkg-config file. Neither holds
# the prefix, so an installed tree can be moved.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/media_backend)
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
list(JOIN gst_modules ", " pc_modules)
string(REPLACE ">=" " >= " pc_modules "${pc_modules}")
list(JOIN gst_modules " " gst_modules)

file(RELATIVE_PATH pc_to_prefix /${pc_dir} /)
string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
if(LUMORA_ROOT)
  get_filename_component(config_lumora_root ${LUMORA_ROOT} ABSOLUTE BASE_DIR ${CMAKE_BINARY_DIR})
  get_filename_component(lumora_libdir ${Lumora_LIBRARY} DIRECTORY)
  set(lumora_include ${Lumora_INCLUDE_DIR})
  if(CMAKE_SYSROOT)  # on the board, the paths begin at its root
    get_filename_component(sysroot ${CMAKE_SYSROOT} ABSOLUTE BASE_DIR ${CMAKE_BINARY_DIR})
    foreach(path config_lumora_root lumora_libdir lumora_include)
      string(REPLACE "${sysroot}/" "/" ${path} "${${path}}")
    endforeach()
  endif()
  set(pc_lumora_cflags " -I${lumora_include}")
  set(pc_lumora_libs " -L${lumora_libdir} -lLumoraTools")
  set(pc_lumora_run_path " -Wl,-rpath,${lumora_libdir}")
else()
  set(config_lumora_root "\${PACKAGE_PREFIX_DIR}")
  set(pc_lumora_libs " -lLumoraTools")
endif()

# Programs find a library that stands outside the system's folders, as CMake's do.
if(NOT CMAKE_SKIP_INSTALL_RPATH)
  set(pc_run_path " -Wl,-rpath,\${libdir}${pc_lumora_run_path}")
endif()

configure_package_config_file(cmake/media_backendConfig.cmake.in
    ${CMAKE_BINARY_DIR}/media_backendConfig.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/media_backendConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
configure_file(cmake/media_backend.pc.in ${CMAKE_BINARY_DIR}/media_backend.pc @ONLY)

install(EXPORT media_backendTargets NAMESPACE media_backend:: DESTINATION ${package_dir}
        COMPONENT development)
install(FILES ${CMAKE_BINARY_DIR}/media_backendConfig.cmake
              ${CMAKE_BINARY_DIR}/media_backendConfigVersion.cmake
              cmake/FindLumora.cmake
        DESTINATION ${package_dir} COMPONENT development)
install(FILES ${CMAKE_BINARY_DIR}/media_backend.pc DESTINATION ${pc_dir}
        COMPONENT development)
