# Finds the host's picture library: lumora/LumoraPicture.h, which declares its whole interface alone
# or with lumora/FrameExport.h beside it, and libLumoraTools.so. Looks below LUMORA_ROOT and nowhere
# else if that is set. Makes the target lumora::LumoraTools.
set(lumora_places)
if(LUMORA_ROOT)
  set(lumora_places PATHS ${LUMORA_ROOT} NO_DEFAULT_PATH)
endif()
find_path(Lumora_INCLUDE_DIR lumora/LumoraPicture.h
          PATH_SUFFIXES include ${lumora_places})
find_library(Lumora_LIBRARY LumoraTools
             PATH_SUFFIXES lib lib64 lib/${CMAKE_LIBRARY_ARCHITECTURE} ${lumora_places})
unset(lumora_places)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Lumora REQUIRED_VARS Lumora_LIBRARY Lumora_INCLUDE_DIR)

if(Lumora_FOUND AND NOT TARGET lumora::LumoraTools)
  add_library(lumora::LumoraTools SHARED IMPORTED)
  set_target_properties(lumora::LumoraTools PROPERTIES
      IMPORTED_LOCATION ${Lumora_LIBRARY}
      INTERFACE_INCLUDE_DIRECTORIES ${Lumora_INCLUDE_DIR})
endif()
mark_as_advanced(Lumora_INCLUDE_DIR Lumora_LIBRARY)
