# Finds the host's picture library: headers lumora/LumoraPicture.h and lumora/FrameExport.h, and
# libLumoraTools.so, below LUMORA_ROOT. Makes the target lumora::LumoraTools.
find_path(Lumora_INCLUDE_DIR lumora/LumoraPicture.h
          HINTS ${LUMORA_ROOT} PATH_SUFFIXES include)
find_library(Lumora_LIBRARY LumoraTools
             HINTS ${LUMORA_ROOT} PATH_SUFFIXES lib lib64 ${CMAKE_LIBRARY_ARCHITECTURE}
                   lib/${CMAKE_LIBRARY_ARCHITECTURE})

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Lumora REQUIRED_VARS Lumora_LIBRARY Lumora_INCLUDE_DIR)

if(Lumora_FOUND AND NOT TARGET lumora::LumoraTools)
  add_library(lumora::LumoraTools SHARED IMPORTED)
  set_target_properties(lumora::LumoraTools PROPERTIES
      IMPORTED_LOCATION ${Lumora_LIBRARY}
      INTERFACE_INCLUDE_DIRECTORIES ${Lumora_INCLUDE_DIR})
endif()
mark_as_advanced(Lumora_INCLUDE_DIR Lumora_LIBRARY)
