# Installation helpers and the package other projects build against.
#
# Layout (relative to the prefix given to `cmake --install --prefix`, or
# CMAKE_INSTALL_PREFIX): lib/libzkv.so.* (CMAKE_INSTALL_LIBDIR), include/zkv
# and include/velmora/platform, lib/pkgconfig/velmora.pc,
# lib/cmake/Velmora/ (find_package(Velmora) -> Velmora::zkv), libexec/velmorad
# with its activation file in share/dbus-1/services and its user unit in
# lib/systemd/user, bin/velmora with share/man/man1/velmora.1, bin/velmora-server,
# and README.md, LICENSE and NOTICE in share/doc/velmora.
#
# Files that name an installed path (the activation file, the user unit,
# velmora.pc) are configured while installing, not while configuring: only
# then is the final prefix known, since `cmake --install --prefix P` may
# differ from CMAKE_INSTALL_PREFIX. DESTDIR is added to where they go, never
# to what they say.

include(CMakePackageConfigHelpers)

set(VELMORA_DBUS_SERVICES_DIR "${CMAKE_INSTALL_DATADIR}/dbus-1/services" CACHE STRING
  "Where the D-Bus activation file goes (relative to the prefix, or absolute)")
set(VELMORA_SYSTEMD_USER_UNIT_DIR "lib/systemd/user" CACHE STRING
  "Where the systemd user unit goes (relative to the prefix, or absolute)")

set(VELMORA_CMAKE_SOURCE_DIR ${CMAKE_CURRENT_LIST_DIR})

# velmora_install_configured_file(<template> <destination> [RENAME <name>]
#                                 [COMPONENT <component>])
# Installs <template> (a configure_file input, @VAR@ only) into <destination>
# (relative to the prefix, or absolute), configured at install time with
# VELMORA_PREFIX and VELMORA_FULL_{BINDIR,LIBDIR,LIBEXECDIR,INCLUDEDIR,DATADIR}
# set to the final installed locations, VELMORA_PC_{LIBDIR,INCLUDEDIR} to
# the same as pkg-config writes them ("${prefix}/lib"), and VELMORAD_PATH to
# the installed daemon. The file is named <name>, or <template> without its ".in".
function(velmora_install_configured_file template destination)
  cmake_parse_arguments(PARSE_ARGV 2 ARG "" "RENAME;COMPONENT" "")
  get_filename_component(template ${template} ABSOLUTE)
  if(ARG_RENAME)
    set(name ${ARG_RENAME})
  else()
    get_filename_component(name ${template} NAME)
    string(REGEX REPLACE "\\.in$" "" name ${name})
  endif()
  if(NOT ARG_COMPONENT)
    set(ARG_COMPONENT Runtime)
  endif()
  install(CODE "
set(VELMORA_TEMPLATE [==[${template}]==])
set(VELMORA_NAME [==[${name}]==])
set(VELMORA_DESTINATION [==[${destination}]==])
set(VELMORA_STAGING_DIR [==[${CMAKE_CURRENT_BINARY_DIR}/installed]==])
set(VELMORA_BINDIR [==[${CMAKE_INSTALL_BINDIR}]==])
set(VELMORA_LIBDIR [==[${CMAKE_INSTALL_LIBDIR}]==])
set(VELMORA_LIBEXECDIR [==[${CMAKE_INSTALL_LIBEXECDIR}]==])
set(VELMORA_INCLUDEDIR [==[${CMAKE_INSTALL_INCLUDEDIR}]==])
set(VELMORA_DATADIR [==[${CMAKE_INSTALL_DATADIR}]==])
set(PROJECT_VERSION [==[${PROJECT_VERSION}]==])
include([==[${VELMORA_CMAKE_SOURCE_DIR}/VelmoraConfigureAtInstall.cmake]==])
" COMPONENT ${ARG_COMPONENT})
endfunction()

# Called once at the end of the top-level CMakeLists, when every folder's
# targets exist.
function(velmora_install_package)
  set(cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Velmora)

  # find_package(Velmora): the exported Velmora::zkv, relocatable (its paths
  # are computed from where the package file is found).
  install(EXPORT VelmoraTargets NAMESPACE Velmora:: FILE VelmoraTargets.cmake
    DESTINATION ${cmake_dir} COMPONENT Development)
  configure_package_config_file(${VELMORA_CMAKE_SOURCE_DIR}/VelmoraConfig.cmake.in
    ${PROJECT_BINARY_DIR}/cmake/VelmoraConfig.cmake
    INSTALL_DESTINATION ${cmake_dir}
    NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
  # The soname carries the major version, so the package promises the same.
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/VelmoraConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/cmake/VelmoraConfig.cmake ${PROJECT_BINARY_DIR}/cmake/VelmoraConfigVersion.cmake
    DESTINATION ${cmake_dir} COMPONENT Development)

  # pkg-config: velmora.pc (Libs: -lzkv).
  velmora_install_configured_file(${VELMORA_CMAKE_SOURCE_DIR}/velmora.pc.in ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT Development)

  install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/NOTICE
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/velmora COMPONENT Runtime)
endfunction()
