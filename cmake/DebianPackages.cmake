# Debian packages, made by the target "package" of a build for the system's own places; a build for
# another prefix has a run path and no multiarch folders.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr" OR NOT CMAKE_SKIP_INSTALL_RPATH OR NOT MEDIA_BACKEND_STATION)
  return()
endif()

set(packaging ${CMAKE_CURRENT_LIST_DIR}/../packaging)
find_program(GZIP gzip REQUIRED)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_NAME media-backend)
set(CPACK_PACKAGE_CONTACT "media_backend maintainers <maintainers@localhost>")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Where the libraries of this build are found, which no package on this machine owns.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${CMAKE_BINARY_DIR}/src ${CMAKE_BINARY_DIR}/simulation/lumora)

set(same_version "libmedia-backend (= ${PROJECT_VERSION})")
set(board_plugins "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad, \
gstreamer1.0-plugins-ugly, gstreamer1.0-libav")

# Component, name of its package, section and description of a package; everything else by variables
# that end alike.
function(debian_package component name section summary text)
  string(TOUPPER CPACK_DEBIAN_${component}_ variable)
  set(${variable}PACKAGE_NAME ${name} PARENT_SCOPE)
  set(${variable}PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(${variable}DESCRIPTION "${summary}\n${text}" PARENT_SCOPE)

  set(doc ${CMAKE_INSTALL_DATADIR}/doc/${name})
  install(FILES ${packaging}/copyright DESTINATION ${doc} COMPONENT ${component})
  install(FILES ${CMAKE_BINARY_DIR}/changelog.gz DESTINATION ${doc} COMPONENT ${component})
  if(EXISTS ${packaging}/${name}.lintian-overrides)
    install(FILES ${packaging}/${name}.lintian-overrides RENAME ${name}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component})
  endif()
endfunction()

execute_process(COMMAND ${GZIP} -9 -n -c ${packaging}/changelog
                OUTPUT_FILE ${CMAKE_BINARY_DIR}/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${packaging}/changelog)

debian_package(library libmedia-backend libs
    "video pipelines and zero-copy frames for camera boards"
    "A host application writes its GStreamer pipelines with it, for the hardware\n\
video platform that the board has, and hands over exported camera frames\n\
without a copy.\n\
.\n\
This build holds the stand-in for the host's picture library.")

debian_package(development libmedia-backend-dev libdevel
    "video pipelines for camera boards, development files"
    "The headers of libmedia-backend and of the stand-in for the host's picture\n\
library, the CMake package and the pkg-config module media_backend.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${same_version}, libgstreamer1.0-dev (>= 1.16), libgstreamer-plugins-base1.0-dev (>= 1.16), \
libopus-dev (>= 1.3)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)

debian_package(station media-station video
    "host application for camera boards"
    "Records a camera to MPEG-TS segments, serves it over RTSP and HTTP, and shows\n\
what libmedia-backend makes of a board, which may be a simulated one.")
set(CPACK_DEBIAN_STATION_PACKAGE_DEPENDS "${same_version}, glib-networking")  # TLS
set(CPACK_DEBIAN_STATION_PACKAGE_RECOMMENDS "${board_plugins}")
set(CPACK_DEBIAN_STATION_PACKAGE_SUGGESTS "gstreamer1.0-alsa, gstreamer1.0-pulseaudio")  # for --mic

install(FILES "${packaging}/media-station@.service" DESTINATION lib/systemd/system COMPONENT station)

debian_package(simulated_board gstreamer1.0-simulated-board video
    "video elements of camera boards, simulated in software"
    "GStreamer elements under the names of the NVIDIA and NXP i.MX hardware ones,\n\
for trying a board's pipelines without the board. They are there when the\n\
variable SIMULATED_BOARD says nvidia or imx.")
set(CPACK_DEBIAN_SIMULATED_BOARD_PACKAGE_RECOMMENDS "${board_plugins}")

include(CPack)
