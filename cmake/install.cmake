# What is installed, and where: cmake --build FOLDER --target velmora && cmake --install FOLDER. What a build has not (the
# programs of a 64-bit one) is left out. Builds of both word sizes may have one prefix: their libraries lie in folders of their own.
include(CMakePackageConfigHelpers)
set(velmora_package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/velmora)

# A library, and the name velmora::EXPORTED that other projects know it by.
function(velmora_install_library target exported)
    if(TARGET ${target})
        add_dependencies(velmora ${target})
        set_target_properties(${target} PROPERTIES EXPORT_NAME ${exported})
        install(TARGETS ${target} EXPORT velmora
                LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
                INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
    endif()
endfunction()

velmora_install_library(velmora_wire wire)
velmora_install_library(velmora_shared client)
velmora_install_library(velmora_client client-static)
velmora_install_library(velmora_testing testing)
if(TARGET velmora_testing)
    # Installed, tests have the library that the code under test has.
    set_target_properties(velmora_testing PROPERTIES INTERFACE_LINK_LIBRARIES
                          "$<BUILD_INTERFACE:velmora_client>;$<INSTALL_INTERFACE:velmora_shared>")
endif()
install(EXPORT velmora NAMESPACE velmora:: FILE velmoraTargets.cmake DESTINATION ${velmora_package_folder})

# The programs, and what preload/ has: that has rules of its own.
foreach(target velmora-mm velmora-controller)
    if(TARGET ${target})
        add_dependencies(velmora ${target})
        install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    endif()
endforeach()
foreach(target velmora_preload_32 velmora_preload_64)
    if(TARGET ${target})
        add_dependencies(velmora ${target})
    endif()
endforeach()

configure_package_config_file(lib/velmoraConfig.cmake.in velmoraConfig.cmake INSTALL_DESTINATION ${velmora_package_folder})
write_basic_package_version_file(velmoraConfigVersion.cmake COMPATIBILITY SameMajorVersion)
configure_file(lib/velmora.pc.in velmora.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velmoraConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/velmoraConfigVersion.cmake
        DESTINATION ${velmora_package_folder})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velmora.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(DIRECTORY include/ lib/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Programs to begin with, a project by themselves; docs/application-guide.md explains those of guide/.
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/velmora-mm/examples)
install(FILES tools/command_line.hpp tools/command.hpp DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/velmora-mm/examples/tools)
install(FILES packaging/man/libvelmora.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
if(NOT TARGET velmora-mm OR CMAKE_CROSSCOMPILING)
    return()
endif()

# With the programs: their manual pages, made from what they say of themselves, and completion.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND)
    add_custom_command(OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/man/velmora-mm.1
                       COMMAND Python3::Interpreter ${PROJECT_SOURCE_DIR}/scripts/manual.py ${CMAKE_CURRENT_BINARY_DIR}/man
                               $<TARGET_FILE:velmora-mm> $<TARGET_FILE:velmora-controller>
                       DEPENDS velmora-mm velmora-controller ${PROJECT_SOURCE_DIR}/scripts/manual.py)
    add_custom_target(velmora_manual DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/man/velmora-mm.1)
    add_dependencies(velmora velmora_manual)
    install(DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
file(CREATE_LINK velmora-mm ${CMAKE_CURRENT_BINARY_DIR}/velmora-controller.completion SYMBOLIC)
set(completions ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES packaging/velmora-mm.bash-completion DESTINATION ${completions} RENAME velmora-mm)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velmora-controller.completion DESTINATION ${completions} RENAME velmora-controller)
