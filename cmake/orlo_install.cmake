# Install rules.  Three components:
#   orlo         liborlo.so.0 and its versioned file
#   orlo_dev     headers, the liborlo.so link, orlo.pc and the CMake package
#   standins     the stand-ins for the device's closed parts: the engine and
#                the plain element libraries in the library folder, the
#                plugins in GStreamer's plugin folder under the prefix
# `cmake --install <build> --prefix P` installs all three.
include(CMakePackageConfigHelpers)

set(ORLO_INSTALL_PLUGINDIR ${CMAKE_INSTALL_LIBDIR}/gstreamer-1.0
    CACHE STRING "GStreamer plugin folder, relative to the prefix")
set(ORLO_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/orlo)

# An installed liborlo finds the engine beside it and the element plugins it
# links in the plugin folder; the plugins find the buffer libraries one level
# up.  Relative, so that a prefix can move.
file(RELATIVE_PATH orlo_lib_to_plugins /p/${CMAKE_INSTALL_LIBDIR} /p/${ORLO_INSTALL_PLUGINDIR})
file(RELATIVE_PATH orlo_plugins_to_lib /p/${ORLO_INSTALL_PLUGINDIR} /p/${CMAKE_INSTALL_LIBDIR})
string(REGEX REPLACE "/$" "" orlo_plugins_to_lib "${orlo_plugins_to_lib}")
set_target_properties(orlo PROPERTIES INSTALL_RPATH "\$ORIGIN:\$ORIGIN/${orlo_lib_to_plugins}")
set_target_properties(gstkellistbuffer PROPERTIES INSTALL_RPATH "\$ORIGIN")
foreach(plugin gstkelapp gstlumensrc gstkelsstsrc)
  set_target_properties(${plugin} PROPERTIES INSTALL_RPATH "\$ORIGIN/${orlo_plugins_to_lib}")
endforeach()

# ---- liborlo ----
# A newer version replaces an older one's file rather than leaving it beside
# the fresh links.
install(CODE "
  file(GLOB orlo_old \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/liborlo.so.0.*\")
  list(FILTER orlo_old EXCLUDE REGEX \"/liborlo\\\\.so\\\\.${PROJECT_VERSION}\$\")
  if(orlo_old)
    message(STATUS \"Removing older: \${orlo_old}\")
    file(REMOVE \${orlo_old})
  endif()" COMPONENT orlo)
install(TARGETS orlo EXPORT orloTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT orlo NAMELINK_COMPONENT orlo_dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${ORLO_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orlo
        COMPONENT orlo_dev)

# orlo.pc, written at install time so that it names the prefix installed to.
set(ORLO_PC_PREFIX "@ORLO_PC_PREFIX@") # filled in at install time
configure_file(${CMAKE_CURRENT_LIST_DIR}/orlo.pc.in ${CMAKE_BINARY_DIR}/orlo.pc.in @ONLY)
install(CODE "
  set(ORLO_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${CMAKE_BINARY_DIR}/orlo.pc.in\" \"${CMAKE_BINARY_DIR}/orlo.pc\" @ONLY)"
  COMPONENT orlo_dev)
install(FILES ${CMAKE_BINARY_DIR}/orlo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT orlo_dev)

# The CMake package: orlo::orlo with its include folder and GLib/GStreamer.
install(EXPORT orloTargets NAMESPACE orlo:: DESTINATION ${ORLO_INSTALL_CMAKEDIR}
        COMPONENT orlo_dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/orloConfig.cmake.in
  ${CMAKE_BINARY_DIR}/orloConfig.cmake INSTALL_DESTINATION ${ORLO_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/orloConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/orloConfig.cmake ${CMAKE_BINARY_DIR}/orloConfigVersion.cmake
        DESTINATION ${ORLO_INSTALL_CMAKEDIR} COMPONENT orlo_dev)

# ---- the stand-ins ----
install(TARGETS ravel gstkelbuddy gstkellistbuffer plug_and_detect
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT standins NAMELINK_SKIP)
install(TARGETS gstkelapp gstlumensrc gstkelsstsrc
  LIBRARY DESTINATION ${ORLO_INSTALL_PLUGINDIR} COMPONENT standins)

# A stand-in that calls nothing of the C library still names it, so that its
# package depends on the C library it was built with (the toolchain links
# as needed by default).
foreach(lib gstkelbuddy gstkellistbuffer plug_and_detect)
  target_link_libraries(${lib} PRIVATE -Wl,--push-state,--no-as-needed,-lc,--pop-state)
endforeach()
