# Helpers for the libraries' public headers and for where installed programs find the libraries.

# Public headers are included as <esputility/NAME.h>. Installed, they live flat under
# include/esputility/; in the build tree the same names are links to the sources, so that code
# and tests compile the headers exactly as a program using the installed libraries does.
set(ESP_BUILD_INCLUDE_DIR ${CMAKE_BINARY_DIR}/include)
# Made afresh at each configuration, so that a header taken off the list does not linger.
file(REMOVE_RECURSE ${ESP_BUILD_INCLUDE_DIR}/esputility)
file(MAKE_DIRECTORY ${ESP_BUILD_INCLUDE_DIR}/esputility)

# esp_public_headers(TARGET header...): installs the headers with the development files and
# lists them in the target's property ESP_PUBLIC_HEADERS (the install test compiles each alone).
function(esp_public_headers target)
    foreach(header ${ARGN})
        get_filename_component(source ${header} ABSOLUTE)
        get_filename_component(name ${header} NAME)
        file(CREATE_LINK ${source} ${ESP_BUILD_INCLUDE_DIR}/esputility/${name} SYMBOLIC)
        target_sources(${target} PRIVATE ${source})
        set_property(TARGET ${target} APPEND PROPERTY ESP_PUBLIC_HEADERS ${name})
    endforeach()
    install(FILES ${ARGN} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/esputility COMPONENT dev)
endfunction()

# Installed programs and libraries outside the system's library folders find the project's
# libraries relative to themselves; under /usr they need no search path.
list(FIND CMAKE_PLATFORM_IMPLICIT_LINK_DIRECTORIES "${CMAKE_INSTALL_FULL_LIBDIR}" esp_system_libdir)
if(esp_system_libdir EQUAL -1)
    file(RELATIVE_PATH esp_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set(ESP_PROGRAM_RPATH "$ORIGIN/${esp_bin_to_lib}")
    set(ESP_LIBRARY_RPATH "$ORIGIN")
else()
    set(ESP_PROGRAM_RPATH "")
    set(ESP_LIBRARY_RPATH "")
endif()

# esp_install_program(TARGET): installs a program of the esp-utility package.
function(esp_install_program target)
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${ESP_PROGRAM_RPATH}")
    install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)
endfunction()

# Where installed programs find their data (the demo package, loaders), relative to themselves,
# so that an installation can be moved to another prefix.
set(ESP_DATA_SUBDIR ${CMAKE_INSTALL_DATADIR}/esp-utility)
file(RELATIVE_PATH ESP_BIN_TO_DATA ${CMAKE_INSTALL_FULL_BINDIR}
     ${CMAKE_INSTALL_PREFIX}/${ESP_DATA_SUBDIR})
