# `cmake --install`: the shared library, its public headers under
# include/tessera (a host includes <tessera/...> with only PREFIX/include on
# its path: the headers include each other by relative paths), the tessera
# command, a CMake package (Tessera::tessera)
# and a pkg-config file.
include(CMakePackageConfigHelpers)

set(TESSERA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Tessera)

# The public headers, and the platform headers they include.
file(GLOB TESSERA_PUBLIC_HEADERS ${PROJECT_SOURCE_DIR}/include/*.h)
list(APPEND TESSERA_PUBLIC_HEADERS ${PROJECT_BINARY_DIR}/include/tessera_version.h
  ${PROJECT_SOURCE_DIR}/platform/tessera_export.h)
install(FILES ${TESSERA_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tessera)
set(TESSERA_PLATFORM_HEADERS
  imglib/channels.h imglib/defocus.h imglib/depthoffield.h imglib/error.h imglib/image.h
  imglib/kernels.h imglib/pixels.h imglib/pointops.h imglib/radialblur.h imglib/vectorblur.h
  util/exceptions.h util/job.h util/rect.h util/ref_ptr.h util/region.h util/taskprofiler.h
  xml/element.h)
foreach(header ${TESSERA_PLATFORM_HEADERS})
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/platform/${header}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tessera/${folder})
endforeach()

install(TARGETS tessera tessera_public EXPORT TesseraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# Found beside the library at run time.
install(TARGETS tessera_oiio LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
set_target_properties(tessera_cli PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
install(TARGETS tessera_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(EXPORT TesseraTargets NAMESPACE Tessera:: DESTINATION ${TESSERA_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TesseraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TesseraConfig.cmake INSTALL_DESTINATION ${TESSERA_CMAKE_DIR})
# 0.x: a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TesseraConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TesseraConfig.cmake
  ${PROJECT_BINARY_DIR}/TesseraConfigVersion.cmake DESTINATION ${TESSERA_CMAKE_DIR})

# Relocatable: the prefix is found from where the file lies.
file(RELATIVE_PATH TESSERA_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${PROJECT_SOURCE_DIR}/cmake/tessera.pc.in ${PROJECT_BINARY_DIR}/tessera.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tessera.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
