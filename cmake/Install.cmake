# cmake --install: the shared libraries with versioned names, libTellarPlatform.so beside them,
# the static Core helpers that the headers' templates call, the public headers under
# include/tellar, tellar-maps, a CMake package (find_package(TellarSpatialMaps CONFIG)) and
# pkg-config files. Paths inside the package are relative, so any prefix works.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

option(TELLAR_INSTALL_RPATH "Installed binaries find the libraries through paths relative to themselves" ON)

set(TELLAR_INCLUDE_SUBDIR tellar)
set(TELLAR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TellarSpatialMaps)

set(tellar_versioned TellarData TellarSpatial TellarSpatialProjection TellarImaging TellarSpatialMaps)
set_target_properties(${tellar_versioned} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})

set_target_properties(tellar_core PROPERTIES OUTPUT_NAME TellarCore EXPORT_NAME Core)
set_target_properties(TellarData PROPERTIES EXPORT_NAME Data)
set_target_properties(TellarSpatial PROPERTIES EXPORT_NAME Spatial)
set_target_properties(TellarSpatialProjection PROPERTIES EXPORT_NAME SpatialProjection)
set_target_properties(TellarImaging PROPERTIES EXPORT_NAME Imaging)
set_target_properties(TellarSpatialMaps PROPERTIES EXPORT_NAME SpatialMaps)
set_target_properties(TellarPlatform PROPERTIES EXPORT_NAME Platform)
target_include_directories(tellar_core INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/${TELLAR_INCLUDE_SUBDIR}>)

if(TELLAR_INSTALL_RPATH)
  # The libraries load each other, and the map-service library opens libTellarPlatform.so, from
  # their own directory; the tool looks in ../lib (or the library directory in use).
  file(RELATIVE_PATH tellar_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(${tellar_versioned} TellarPlatform PROPERTIES INSTALL_RPATH "\$ORIGIN")
  set_target_properties(tellar-maps PROPERTIES INSTALL_RPATH "\$ORIGIN/${tellar_bin_to_lib}")
endif()

install(TARGETS tellar_core ${tellar_versioned} TellarPlatform
  EXPORT TellarSpatialMapsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(TARGETS tellar-maps RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)

# Headers: what a host includes and what those include, nothing of the implementation.
set(tellar_include ${CMAKE_INSTALL_INCLUDEDIR}/${TELLAR_INCLUDE_SUBDIR})
install(DIRECTORY core/Include/Core Source/Include/Tellar
                  companions/Spatial/Include/Tellar companions/Projection/Include/Tellar
                  companions/Imaging/Include/TellarImaging
  DESTINATION ${tellar_include} COMPONENT development FILES_MATCHING PATTERN "*.h")
install(DIRECTORY data/Include/Data/Interfaces DESTINATION ${tellar_include}/Data COMPONENT development)
install(FILES data/Include/Data/Exports.h data/Include/Data/Structures.h
  DESTINATION ${tellar_include}/Data COMPONENT development)
install(FILES platform/Include/Platform/Companion.h DESTINATION ${tellar_include}/Platform COMPONENT development)
install(FILES platform/Include/Platform/Interfaces/IAppLogger.h platform/Include/Platform/Interfaces/IAsyncTask.h
  DESTINATION ${tellar_include}/Platform/Interfaces COMPONENT development)
install(FILES mapservices/Include/MapServices/Geometry.h DESTINATION ${tellar_include}/MapServices COMPONENT development)
install(FILES mapservices/Include/MapServices/Common/BoundingBoxValue.h
  DESTINATION ${tellar_include}/MapServices/Common COMPONENT development)
install(FILES mapservices/Include/MapServices/Interfaces/IServiceRequest.h
  DESTINATION ${tellar_include}/MapServices/Interfaces COMPONENT development)

# The CMake package.
install(EXPORT TellarSpatialMapsTargets NAMESPACE Tellar:: DESTINATION ${TELLAR_CMAKE_DIR} COMPONENT development)
configure_package_config_file(cmake/TellarSpatialMapsConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/TellarSpatialMapsConfig.cmake INSTALL_DESTINATION ${TELLAR_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/TellarSpatialMapsConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/TellarSpatialMapsConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/TellarSpatialMapsConfigVersion.cmake
  DESTINATION ${TELLAR_CMAKE_DIR} COMPONENT development)

# pkg-config: one file per library; the prefix is found from the file's own place.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(TELLAR_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH tellar_pc_up ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" tellar_pc_up "${tellar_pc_up}")
  set(TELLAR_PC_PREFIX "\${pcfiledir}/${tellar_pc_up}")
endif()
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(TELLAR_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(TELLAR_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()

function(tellar_pkg_config name description library requires)
  set(TELLAR_PC_NAME ${name})
  set(TELLAR_PC_DESCRIPTION "${description}")
  set(TELLAR_PC_LIBRARY ${library})
  set(TELLAR_PC_REQUIRES "${requires}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/tellar.pc.in ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()

tellar_pkg_config(tellar-core "Object model and error helpers of the Tellar libraries (static)" TellarCore fmt)
tellar_pkg_config(tellar-data "Tellar value objects" TellarData tellar-core)
tellar_pkg_config(tellar-spatial "Tellar bounding boxes" Tellar.Spatial tellar-core)
tellar_pkg_config(tellar-spatial-projection "Tellar CRS objects and transformations" Tellar.Spatial.Projection tellar-core)
tellar_pkg_config(tellar-imaging "Tellar images: decoding, PNG and GeoTIFF writing" TellarImaging tellar-core)
tellar_pkg_config(tellar-platform "The shared process logger of the Tellar libraries" TellarPlatform tellar-core)
tellar_pkg_config(tellar-spatial-maps "Tellar map-service client: TMS, WMS, WMTS and WCS"
  Tellar.Spatial.Maps "tellar-spatial, tellar-spatial-projection, tellar-imaging, tellar-data, tellar-core")
