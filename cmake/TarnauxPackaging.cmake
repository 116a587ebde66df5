# What `cmake --install` puts beside the libraries, tools and headers: a
# pkg-config file per library and the CMake package (find_package(tarnaux)),
# and the Debian packages that CPack makes of the install, one per component
# (`cpack -G DEB`, or the "package" target; docs/packaging.md).
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
install(CODE "${tarn_install_pc}" COMPONENT dev)

# --- CMake package ---------------------------------------------------------
install(EXPORT tarnauxTargets NAMESPACE tarnaux:: FILE tarnauxTargets.cmake
        DESTINATION ${TARN_CMAKE_PACKAGE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tarnauxConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/tarnauxConfig.cmake
  INSTALL_DESTINATION ${TARN_CMAKE_PACKAGE_DIR})
# The shared objects keep their interface within a major version (SONAME .1).
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tarnauxConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tarnauxConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/tarnauxConfigVersion.cmake
        DESTINATION ${TARN_CMAKE_PACKAGE_DIR} COMPONENT dev)

# --- Debian packages ---------------------------------------------------------
# One package per install component, named as Debian names them:
#   tarnaux, tarnbase, qiv_ejs  the shared objects, each in a package named
#                               after its SONAME (libqiv_ejs.so.1: libqiv-ejs1)
#   dev                         headers, the .so links, pkg-config files and
#                               the CMake package: libtarnaux-dev
#   tools                       tarnctl and tarn-ejs (with their manual pages
#                               and bash completion): tarnaux-tools
# The sandbox runner, the demo, the tests and the benchmarks install nothing.
# Each package has its copyright file (DEP-5) and the changelog in
# /usr/share/doc/<package>/. lintian accepts the packages without errors or
# warnings (test debian_packages_pass_lintian).
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGE_NAME libtarnaux)
set(CPACK_PACKAGE_CONTACT "libtarnaux maintainers <maintainers@libtarnaux.invalid>"
    CACHE STRING "Maintainer of the Debian packages: name <address>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Debian ships programs and libraries without their debugging sections.
set(CPACK_STRIP_FILES ON)
# CPack installs into its staging folder through DESTDIR, with the
# package's prefix /usr as CMAKE_INSTALL_PREFIX, so that the .pc files name
# /usr.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(tarn_deb_version ${PROJECT_VERSION})
set(tarn_deb_work ${CMAKE_CURRENT_BINARY_DIR}/debian)
set(tarn_deb_libraries tarnaux tarnbase qiv_ejs)
set(CPACK_COMPONENTS_ALL ${tarn_deb_libraries} dev tools)

# The runtime packages. Each declares its library in a shlibs file, so that
# packages built against it depend on it, and activates dpkg's ldconfig
# trigger, which runs ldconfig once at the end of an install or removal
# (no maintainer script of its own).
set(tarn_deb_summary_tarnaux "auxiliary library of the endpoint agent's processes")
set(tarn_deb_summary_tarnbase "platform layer of libtarnaux")
set(tarn_deb_summary_qiv_ejs "protected JSON files of libtarnaux")
set(tarn_deb_about_tarnaux [[
libtarnaux offers the agent's service, watchdog, workers, installer and
upgrader the jobs they share: the process heartbeat table, the app home
record, versions, component manifests and packages, the tar-gzip
extractor, service and product records, environment checks and timing
probes.]])
set(tarn_deb_about_tarnbase [[
libtarnbase holds the platform functions of libtarnaux: strings, memory,
processes, time, shared memory, the named global lock, logging, paths,
files and directories, ini files, file locks, shell commands, containers
and identifiers.]])
set(tarn_deb_about_qiv_ejs [[
libqiv_ejs loads JSON files signed with Ed25519 (protected JSON files),
checks them against the trusted public keys and reads them into jansson
trees; it also signs such files with a publisher's secret key.]])
set(tarn_deb_packages "")
foreach(library IN LISTS tarn_deb_libraries)
  get_target_property(soversion ${library} SOVERSION)
  string(REPLACE "_" "-" package "lib${library}${soversion}")
  string(TOUPPER ${library} component)
  set(CPACK_DEBIAN_${component}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${component}_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_${component}_DESCRIPTION "${tarn_deb_summary_${library}}\n${tarn_deb_about_${library}}")
  file(WRITE ${tarn_deb_work}/${library}/shlibs "lib${library} ${soversion} ${package} (>= ${tarn_deb_version})\n")
  file(WRITE ${tarn_deb_work}/${library}/triggers "activate-noawait ldconfig\n")
  set(CPACK_DEBIAN_${component}_PACKAGE_CONTROL_EXTRA
      ${tarn_deb_work}/${library}/shlibs ${tarn_deb_work}/${library}/triggers)
  set(tarn_deb_package_${library} ${package})
  list(APPEND tarn_deb_packages ${package})
endforeach()
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtarnaux-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_DESCRIPTION [[development files of libtarnaux, libtarnbase and libqiv_ejs
The headers of libtarnaux, libtarnbase and libqiv_ejs, the links that the
linker uses, their pkg-config files (tarnaux, tarnbase, qiv_ejs) and the
CMake package (find_package(tarnaux)).]])
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tarnaux-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION [[operator's tools of libtarnaux: tarnctl and tarn-ejs
tarnctl shows and checks the heartbeat table, the app home record,
packages, the environment and versions of the endpoint agent; tarn-ejs
makes, opens and verifies protected JSON files.]])
list(APPEND tarn_deb_packages libtarnaux-dev tarnaux-tools)

# Dependencies among the packages: libtarnaux needs the other two
# libraries, the tools all three; the -dev package needs exactly the
# libraries it was built with, and jansson's headers (qiv_ejs.h includes
# <jansson.h>).
set(tarn_deb_at_least "(>= ${tarn_deb_version})")
set(tarn_deb_exactly "(= ${tarn_deb_version})")
set(tarn_deb_depends_tarnaux "${tarn_deb_package_tarnbase} ${tarn_deb_at_least}, ${tarn_deb_package_qiv_ejs} ${tarn_deb_at_least}")
set(tarn_deb_depends_tarnbase "")
set(tarn_deb_depends_qiv_ejs "")
set(tarn_deb_depends_tools "${tarn_deb_package_tarnaux} ${tarn_deb_at_least}, ${tarn_deb_depends_tarnaux}")
set(tarn_deb_depends_dev "${tarn_deb_package_tarnaux} ${tarn_deb_exactly}, ${tarn_deb_package_tarnbase} ${tarn_deb_exactly}, ${tarn_deb_package_qiv_ejs} ${tarn_deb_exactly}, libjansson-dev")

# The copyright file and the changelog (compressed as Debian wants it:
# gzip -9n, without a name or time stamp, so the same text gives the same
# bytes) go into every package's documentation folder.
find_program(TARN_GZIP gzip REQUIRED)
set(tarn_deb_changelog ${tarn_deb_work}/changelog.gz)
execute_process(COMMAND ${TARN_GZIP} -9n -c ${CMAKE_CURRENT_LIST_DIR}/debian/changelog
                OUTPUT_FILE ${tarn_deb_changelog} RESULT_VARIABLE gzipped)
if(NOT gzipped EQUAL 0)
  message(FATAL_ERROR "Cannot compress cmake/debian/changelog with gzip")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/debian/changelog)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${tarn_deb_changelog}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
          COMPONENT ${component})
endforeach()

# The dependencies on the system's libraries (libc6, libstdc++6, jansson,
# libsodium, libuuid, zlib) come from dpkg-shlibdeps, which cpack runs
# through the project file below on the built objects. CPack's own
# CPACK_DEBIAN_PACKAGE_SHLIBDEPS is not used: with it, CPack gives every
# package with a shared object maintainer scripts that call ldconfig, which
# the trigger above replaces. dpkg-shlibdeps reads the host's package
# database, so a cross build packs without those dependencies.
find_program(TARN_DPKG_SHLIBDEPS dpkg-shlibdeps)
set(TARN_DEB_SHLIBDEPS OFF)
if(TARN_DPKG_SHLIBDEPS AND NOT CMAKE_CROSSCOMPILING)
  set(TARN_DEB_SHLIBDEPS ON)
else()
  message(STATUS "Debian packages without dependencies on system libraries: dpkg-shlibdeps (dpkg-dev) is missing or the build is a cross build")
endif()
set(tarn_deb_objects_tarnaux "$<TARGET_FILE:tarnaux>")
set(tarn_deb_objects_tarnbase "$<TARGET_FILE:tarnbase>")
set(tarn_deb_objects_qiv_ejs "$<TARGET_FILE:qiv_ejs>")
set(tarn_deb_objects_tools "")
foreach(tool tarnctl tarn-ejs)
  if(TARGET ${tool})
    list(APPEND tarn_deb_objects_tools "$<TARGET_FILE:${tool}>")
  endif()
endforeach()
set(tarn_deb_objects_dev "")
set(tarn_deb_options "")
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  string(APPEND tarn_deb_options
    "tarn_deb_depends(${upper} \"${tarn_deb_depends_${component}}\" \"${tarn_deb_objects_${component}}\")\n")
endforeach()
set(TARN_DEB_LIBRARY_DIRS "$<TARGET_FILE_DIR:tarnaux>;$<TARGET_FILE_DIR:tarnbase>;$<TARGET_FILE_DIR:qiv_ejs>")
configure_file(${CMAKE_CURRENT_LIST_DIR}/TarnauxCPackOptions.cmake.in
               ${tarn_deb_work}/TarnauxCPackOptions.cmake.in @ONLY)
file(GENERATE OUTPUT ${tarn_deb_work}/TarnauxCPackOptions.cmake
     INPUT ${tarn_deb_work}/TarnauxCPackOptions.cmake.in)
set(CPACK_PROJECT_CONFIG_FILE ${tarn_deb_work}/TarnauxCPackOptions.cmake)
include(CPack)
