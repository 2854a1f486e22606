# Installation (cmake --install) and the Debian package (cpack -G DEB): the command lines,
# libmarlith.so with its SONAME, the public headers, and the files pkg-config and
# find_package(marlith) read. Included last, after every folder has defined its targets.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS marlith RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# GraphicsMagick's module, where the two commands look for it (image/magick_loader.cpp).
install(TARGETS marlith_magick LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/marlith)
if(TARGET marlith-deblur)
  install(TARGETS marlith-deblur RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# libmarlith.so is marlith::marlith to CMake users: the C entry and the C++ API (C++20).
set_target_properties(marlith_shared PROPERTIES EXPORT_NAME marlith)
target_include_directories(marlith_shared INTERFACE
                           $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_compile_features(marlith_shared INTERFACE cxx_std_20)
install(TARGETS marlith_shared EXPORT marlithTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/marlith
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/marlith)
install(EXPORT marlithTargets NAMESPACE marlith:: DESTINATION ${config_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/marlithConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/marlithConfig.cmake
                              INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/marlithConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/marlithConfig.cmake
              ${PROJECT_BINARY_DIR}/marlithConfigVersion.cmake
        DESTINATION ${config_dir})

# The pkg-config file finds its prefix from where it lies, so the tree can be installed under
# any prefix (cmake --install --prefix, DESTDIR, the Debian package).
file(RELATIVE_PATH pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/marlith.pc.in ${PROJECT_BINARY_DIR}/marlith.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/marlith.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(CPACK_PACKAGE_NAME marlith)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "non-blind image deconvolution: command lines, C and C++ library")
set(CPACK_PACKAGE_CONTACT "marlith developers <marlith@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION graphics)
# Depends: from the shared libraries the binaries use (dpkg-shlibdeps, from dpkg-dev), and the
# packages of the two libraries opened at run time, which dpkg-shlibdeps cannot see.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(opened_packages)
foreach(library ${OPENBLAS_LIBRARY} ${UMFPACK_LIBRARY})
  get_filename_component(file ${library} REALPATH)
  execute_process(COMMAND dpkg-query -S ${file} OUTPUT_VARIABLE owner ERROR_QUIET)
  if(owner MATCHES "^([^:]+):")
    list(APPEND opened_packages ${CMAKE_MATCH_1})
  endif()
endforeach()
string(REPLACE ";" ", " CPACK_DEBIAN_PACKAGE_DEPENDS "${opened_packages}")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
include(CPack)
