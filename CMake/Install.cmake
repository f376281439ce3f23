# What the shared library shows, and where `cmake --install` puts things: the libraries, the public headers, the command
# with its manual page and tab completion when it was built, and what CMake and pkg-config need to find them. The
# installed tree can be moved as a whole.

# Apple's linker knows no such scripts; there hidden visibility has to do.
if(NOT APPLE)
    set(exports ${PROJECT_SOURCE_DIR}/CMake/Exports.map)
    target_link_options(Reelmill PRIVATE LINKER:--version-script=${exports})
    set_target_properties(Reelmill PROPERTIES LINK_DEPENDS ${exports})
endif()

option(REELMILL_INSTALL "Make install rules" ${PROJECT_IS_TOP_LEVEL})
if(NOT REELMILL_INSTALL)
    return()
endif()

include(CMakePackageConfigHelpers)

install(TARGETS Reelmill ReelmillStatic EXPORT ReelmillTargets)
install(DIRECTORY
    Include/Reelmill
    Platform/Include/Quorlan
    Platform/Include/Sambrel
    Platform/Include/Tolbin
    Platform/Include/Ventra
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h")

if(TARGET reelmill)
    install(TARGETS reelmill)
endif()
if(TARGET ReelmillManual)
    install(FILES ${PROJECT_BINARY_DIR}/Host/reelmill.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    install(FILES ${PROJECT_BINARY_DIR}/Host/reelmill.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME reelmill)
endif()

# ---- find_package(Reelmill) ------------------------------------------------------------------------------------------

set(packageDir ${CMAKE_INSTALL_LIBDIR}/cmake/Reelmill)
configure_package_config_file(CMake/ReelmillConfig.cmake.in ReelmillConfig.cmake INSTALL_DESTINATION ${packageDir})
# Before version 1 a minor version may change the interface.
write_basic_package_version_file(ReelmillConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(EXPORT ReelmillTargets NAMESPACE Reelmill:: DESTINATION ${packageDir})
install(FILES
    ${PROJECT_BINARY_DIR}/ReelmillConfig.cmake
    ${PROJECT_BINARY_DIR}/ReelmillConfigVersion.cmake
    DESTINATION ${packageDir})

# ---- pkg-config reelmill ---------------------------------------------------------------------------------------------

file(RELATIVE_PATH pkgConfigToPrefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(CMake/reelmill.pc.in reelmill.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/reelmill.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
