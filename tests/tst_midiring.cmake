# The ring runs a writer and a reader thread flat out: two cores to itself.
set_tests_properties(tst_midiring PROPERTIES PROCESSORS 2)

# The same test built again with ThreadSanitizer: the test and the ring are
# instrumented; Qt comes uninstrumented from the ordinary libraries, and the
# command ring's suppressions cover what its futex-based locks hide.
add_executable(tst_midiring_tsan
    "${CMAKE_CURRENT_SOURCE_DIR}/tst_midiring.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/midinotering.cpp")
target_compile_options(tst_midiring_tsan PRIVATE -fsanitize=thread)
target_link_options(tst_midiring_tsan PRIVATE -fsanitize=thread)
target_link_libraries(tst_midiring_tsan PRIVATE arbo_testsupport)
add_test(NAME tst_midiring_tsan COMMAND tst_midiring_tsan
         WORKING_DIRECTORY "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
set_tests_properties(tst_midiring_tsan PROPERTIES
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen;TSAN_OPTIONS=halt_on_error=1:exitcode=66:second_deadlock_stack=1:suppressions=${CMAKE_CURRENT_SOURCE_DIR}/tst_commandring.tsan-suppressions"
    PROCESSORS 2
    TIMEOUT 300)
