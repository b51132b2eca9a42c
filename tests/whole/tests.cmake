# The tests that exercise the manager, of the default or of the guarded build, as sources of one program: whole_tests. For what has to
# run all of them at once: coverage, and make mutate. What starts programs or threads, and what is not about the manager, is not
# among them. folder: tests/.
function(velmora_whole_tests folder)
    if(VELMORA_GUARDED)
        file(GLOB tests CONFIGURE_DEPENDS ${folder}/guard/*_test.cpp)
        list(APPEND tests ${folder}/whole/play_test.cpp)
    else()
        file(GLOB tests CONFIGURE_DEPENDS ${folder}/unit/*_test.cpp ${folder}/fuzz/sequence*.cpp)
        list(FILTER tests EXCLUDE REGEX "/(area|boot|client|kernel_log|machine|print_job|service|sizing_guide)_test.cpp$")
        list(APPEND tests ${folder}/whole/scripts_and_sequences_test.cpp ${folder}/fuzz/driver.cpp)
        set_source_files_properties(${folder}/whole/scripts_and_sequences_test.cpp PROPERTIES
                                    COMPILE_DEFINITIONS VELMORA_SESSIONS="${folder}/sessions")
    endif()
    set(whole_tests ${tests} PARENT_SCOPE)
endfunction()
