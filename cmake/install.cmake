# What is installed, and where: cmake --build FOLDER --target velmora && cmake --install FOLDER. What a build has not (the
# programs of a 64-bit one) is left out. Builds of both word sizes may have one prefix: their libraries lie in folders of their own.
include(CMakePackageConfigHelpers)
set(velmora_package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/velmora)

# A library, and the name velmora::EXPORTED that other projects know it by. The package's file velmora[SET]Targets.cmake has it.
function(velmora_install_library target exported set)
    if(TARGET ${target})
        add_dependencies(velmora ${target})
        set_target_properties(${target} PROPERTIES EXPORT_NAME ${exported})
        install(TARGETS ${target} EXPORT velmora${set}
                LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
                INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
    endif()
endfunction()

function(velmora_install_program target)
    if(TARGET ${target})
        add_dependencies(velmora ${target})
        install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    endif()
endfunction()

velmora_install_library(velmora_wire wire "")
velmora_install_library(velmora_shared client "")
velmora_install_library(velmora_client client-static "")
velmora_install_library(velmora_testing testing Testing)
velmora_install_program(velmora-mm)
velmora_install_program(velmora-controller)
# What programs are run with: lib/velmora-mm/$LIB/, where a program's own dynamic linker puts its folder's name in place of $LIB.
# That of 32-bit programs has one of two names.
if(TARGET velmora_preload)
    add_dependencies(velmora velmora_preload)
    set(preload_folder ${CMAKE_INSTALL_PREFIX}/lib/velmora-mm)
    if(is_32_bit)
        install(TARGETS velmora_preload LIBRARY DESTINATION ${preload_folder}/lib/i386-linux-gnu)
        install(CODE "file(CREATE_LINK lib/i386-linux-gnu \"\$ENV{DESTDIR}${preload_folder}/lib32\" SYMBOLIC)
                      list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"${preload_folder}/lib32\")")
    else()
        install(TARGETS velmora_preload LIBRARY DESTINATION ${preload_folder}/lib/x86_64-linux-gnu)
    endif()
endif()

foreach(set "" Testing)
    if(set STREQUAL "" OR TARGET velmora_testing)
        install(EXPORT velmora${set} NAMESPACE velmora:: FILE velmora${set}Targets.cmake DESTINATION ${velmora_package_folder})
    endif()
endforeach()
configure_package_config_file(lib/velmoraConfig.cmake.in velmoraConfig.cmake INSTALL_DESTINATION ${velmora_package_folder})
write_basic_package_version_file(velmoraConfigVersion.cmake COMPATIBILITY SameMajorVersion)
configure_file(lib/velmora.pc.in velmora.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velmoraConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/velmoraConfigVersion.cmake
        DESTINATION ${velmora_package_folder})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/velmora.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(DIRECTORY include/ lib/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
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
