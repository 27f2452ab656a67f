# Debian packages: `cpack` in the build folder. Dependencies on libraries are computed.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME peripheral-loader)
set(CPACK_PACKAGE_VENDOR "")
set(CPACK_PACKAGE_CONTACT "The developers of the peripheral loader <peripheral-loader@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Brings the firmware of microcontrollers on a serial line up to date")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "The feature module and the platform that it runs on.")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Headers, CMake package and pkg-config file for hosts that load the module.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "peripheralctl, bootloader-simulator, their manual pages and the documents.")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libperipheral-loader)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libperipheral-loader-dev)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME peripheral-loader-tools)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION electronics)
# The library cache is renewed once, after all that was asked for is unpacked. Scripts that do not exist take the place of
# those by which CPack would call ldconfig itself, which it warns of: no package runs a script.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/triggers none/postinst none/postrm)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Where the tools' own library is found while they are packed; the package with it is named above.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
include(CPack)
