# Debian packages through CPack (scripts/package runs it): one per install component.
#   libesputility-core0  the core library
#   libesputility0       the widgets library and its compiled translations
#   libesputility-dev    headers, CMake package, pkg-config files, the virtual chip's library
#   esp-utility          the programs, man pages, completion, desktop entry, icons, demo, loaders
# Dependencies on system libraries come from dpkg-shlibdeps, so apt pulls them in.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME esp-utility)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGE_CONTACT "ESP Utility maintainers <maintainers@esp-utility.invalid>")
# Each package's description: the first line is its synopsis.
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL core widgets dev programs)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps looks here for the project's own libraries, which no package provides yet.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_CORE_PACKAGE_NAME libesputility-core${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_CORE_PACKAGE_SECTION libs)
string(CONCAT CPACK_DEBIAN_CORE_DESCRIPTION
    "ESP8266 flashing library without widgets\n"
    "The serial link, the boot-loader protocol client, the firmware image format, the operation "
    "worker and the scatter, package and flash-plan rules of ESP Utility.")

set(CPACK_DEBIAN_WIDGETS_PACKAGE_NAME libesputility${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_WIDGETS_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_WIDGETS_DEPENDS core)
string(CONCAT CPACK_DEBIAN_WIDGETS_DESCRIPTION
    "ESP8266 flasher dialog library\n"
    "The flasher dialog that a host application opens, the scatter composer and the widgets of "
    "ESP Utility, with their icons and Russian translation.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libesputility-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS core widgets)
# The installed CMake package and pkg-config files find Qt's development files, and the static
# virtual chip library links zlib.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "qtbase5-dev, libqt5serialport5-dev, zlib1g-dev")
string(CONCAT CPACK_DEBIAN_DEV_DESCRIPTION
    "ESP8266 flashing libraries: development files\n"
    "Headers, the CMake package EspUtility, pkg-config files and the virtual ESP8266 library "
    "for building programs on the ESP Utility libraries and testing flashing tools.")

set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME esp-utility)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SECTION electronics)
set(CPACK_COMPONENT_PROGRAMS_DEPENDS core widgets)
string(CONCAT CPACK_DEBIAN_PROGRAMS_DESCRIPTION
    "ESP8266EX and ESP8285 flasher: command line, dialog and virtual chip\n"
    "esp-utility flashes, verifies, reads back and erases boards from the command line, "
    "esp-utility-gui opens the flasher dialog, and esp-virtual-chip answers on a "
    "pseudo-terminal like a real chip. A demo package runs without a board: esp-utility demo.")

include(CPack)
