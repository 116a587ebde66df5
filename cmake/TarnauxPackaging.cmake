# What `cmake --install` puts beside the libraries, tools and headers: a
# pkg-config file per library and the CMake package (find_package(tarnaux)),
# and the Debian package that CPack makes of the whole install
# (`cpack -G DEB`, or the "package" target).
include(CMakePackageConfigHelpers)

set(TARN_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(TARN_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tarnaux)

# The names that the installed package gives the libraries, also inside this
# build, for projects that add this tree with add_subdirectory.
foreach(library tarnaux tarnbase qiv_ejs)
  add_library(tarnaux::${library} ALIAS ${library})
endforeach()

# Installed, each library finds the others beside it (libtarnaux.so.1 needs
# libtarnbase.so.1 and libqiv_ejs.so.1), so that a program whose run path
# names only the folder of libtarnaux also runs from a prefix that the
# dynamic loader does not search.
set_target_properties(tarnbase qiv_ejs tarnaux PROPERTIES INSTALL_RPATH "$ORIGIN")

# --- pkg-config ------------------------------------------------------------
# A .pc file names the install prefix, which is only known when installing:
# `cmake --install --prefix` and CPack choose it then. So each template is
# filled twice: here with everything else, leaving @CMAKE_INSTALL_PREFIX@
# in place, and by the install step with the prefix it installs to.
# Libraries that the shared objects load privately are named in
# Libs.private, not Requires.private: only shared objects are installed, and
# a Requires.private module would make pkg-config fail for a user who lacks
# its -dev package although nothing of it is needed to link.
set(TARN_PC_PREFIX "@CMAKE_INSTALL_PREFIX@")
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(TARN_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(TARN_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
set(TARN_PC_NAMES tarnbase qiv_ejs tarnaux)
set(TARN_PC_STAGE ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig)
foreach(name IN LISTS TARN_PC_NAMES)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${name}.pc.in ${TARN_PC_STAGE}/${name}.pc.in @ONLY)
endforeach()
# The finished files go to a folder named after the prefix, so that two
# installs to different prefixes at the same time (`cmake --install` and a
# CPack run, say) never write the same file.
set(tarn_install_pc [[
  string(MD5 tarn_pc_prefix_key "${CMAKE_INSTALL_PREFIX}")
  foreach(name @TARN_PC_NAMES@)
    set(tarn_pc_file "@TARN_PC_STAGE@/${tarn_pc_prefix_key}/${name}.pc")
    configure_file("@TARN_PC_STAGE@/${name}.pc.in" "${tarn_pc_file}" @ONLY)
    file(INSTALL DESTINATION "${CMAKE_INSTALL_PREFIX}/@TARN_PKGCONFIG_DIR@" TYPE FILE
         FILES "${tarn_pc_file}")
  endforeach()
]])
string(CONFIGURE "${tarn_install_pc}" tarn_install_pc @ONLY)
install(CODE "${tarn_install_pc}")

# --- CMake package ---------------------------------------------------------
install(EXPORT tarnauxTargets NAMESPACE tarnaux:: FILE tarnauxTargets.cmake
        DESTINATION ${TARN_CMAKE_PACKAGE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tarnauxConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/tarnauxConfig.cmake
  INSTALL_DESTINATION ${TARN_CMAKE_PACKAGE_DIR})
# The shared objects keep their interface within a major version (SONAME .1).
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tarnauxConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarnauxConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/tarnauxConfigVersion.cmake
        DESTINATION ${TARN_CMAKE_PACKAGE_DIR})

# --- Debian package --------------------------------------------------------
# One package with everything that is installed: the three libraries, their
# headers, pkg-config files and CMake package, tarnctl and tarn-ejs.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libtarnaux)
set(CPACK_PACKAGE_CONTACT "libtarnaux maintainers <maintainers@libtarnaux.invalid>"
    CACHE STRING "Maintainer of the Debian package: name <address>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "auxiliary library of the endpoint agent's processes, with its tools")
set(CPACK_PACKAGE_DESCRIPTION [[
libtarnaux offers the agent's service, watchdog, workers, installer and
upgrader the jobs they share: the process heartbeat table, the app home
record, versions, component manifests and packages, the tar-gzip
extractor, service and product records, environment checks and timing
probes. The package also holds its platform layer libtarnbase, the
protected-JSON loader libqiv_ejs, their headers, pkg-config files and CMake
package, and the tools tarnctl and tarn-ejs.]])
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# Debian ships programs and libraries without their debugging sections.
set(CPACK_STRIP_FILES ON)
# CPack installs into its staging folder through DESTDIR, with the
# package's prefix /usr as CMAKE_INSTALL_PREFIX, so that the .pc files name
# /usr.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# A shlibs file, so that packages built against these libraries depend on
# this package; with it CPack also adds the postinst and postrm scripts
# that run ldconfig.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# dpkg-shlibdeps reads the host's package database, so only a native build
# gets the dependencies filled in.
find_program(TARN_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(TARN_DPKG_SHLIBDEPS AND NOT CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  message(STATUS "Debian package without dependencies: dpkg-shlibdeps (dpkg-dev) is missing or the build is a cross build")
endif()
include(CPack)
