# Runs inside `cmake --install` (see velmora_install_configured_file in
# VelmoraInstall.cmake). CMAKE_INSTALL_PREFIX is the final prefix here, so the
# paths written into the file are where things really are; file(INSTALL)
# adds DESTDIR to where it goes and records it in the install manifest.

set(VELMORA_PREFIX "${CMAKE_INSTALL_PREFIX}")
foreach(dir BINDIR LIBDIR LIBEXECDIR INCLUDEDIR DATADIR DESTINATION)
  if(IS_ABSOLUTE "${VELMORA_${dir}}")
    set(VELMORA_FULL_${dir} "${VELMORA_${dir}}")
  else()
    set(VELMORA_FULL_${dir} "${CMAKE_INSTALL_PREFIX}/${VELMORA_${dir}}")
  endif()
endforeach()
set(VELMORAD_PATH "${VELMORA_FULL_LIBEXECDIR}/velmorad")
# pkg-config files say ${prefix}/<dir> for directories inside the prefix.
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${VELMORA_${dir}}")
    set(VELMORA_PC_${dir} "${VELMORA_${dir}}")
  else()
    set(VELMORA_PC_${dir} "\${prefix}/${VELMORA_${dir}}")
  endif()
endforeach()

# One staging directory per destination root, so installs of one build into
# two places at once do not overwrite each other's files.
string(MD5 root_hash "$ENV{DESTDIR}|${CMAKE_INSTALL_PREFIX}")
set(staged "${VELMORA_STAGING_DIR}/${root_hash}/${VELMORA_NAME}")
configure_file("${VELMORA_TEMPLATE}" "${staged}" @ONLY)
file(INSTALL "${staged}" DESTINATION "${VELMORA_FULL_DESTINATION}")
