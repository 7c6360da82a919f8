# The command ring runs a producer and a consumer thread flat out: give it the
# machine's two cores to itself rather than racing other tests for them.
set_tests_properties(tst_commandring PROPERTIES PROCESSORS 2)

# The same test built again with ThreadSanitizer. Compiled with the sanitizer:
# the test itself, the command buffer, the events it flattens and libpd's ring
# (from its C source, so that the ring's own loads and stores are checked too),
# and the MIDI input's tables.
# Everything else the test links (paths, Qt) is not part of the threaded path
# and comes uninstrumented from the ordinary libraries; the linker takes from
# them only what these sources do not define.
add_executable(tst_commandring_tsan
    "${CMAKE_CURRENT_SOURCE_DIR}/tst_commandring.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/pdmessagebuffer.cpp"
    "${CMAKE_SOURCE_DIR}/src/midi/midiinputtables.cpp"
    "${CMAKE_SOURCE_DIR}/src/model/arboevent.cpp"
    "${CMAKE_SOURCE_DIR}/src/model/arbonoteevent.cpp"
    "${LIBPD_RINGBUFFER_SOURCE}")
target_compile_options(tst_commandring_tsan PRIVATE -fsanitize=thread)
target_link_options(tst_commandring_tsan PRIVATE -fsanitize=thread)
target_link_libraries(tst_commandring_tsan PRIVATE arbo_testsupport)

# A sanitizer report ends the run with exit code 66, which fails the test.
# The suppressions (see the file) cover a known, harmless race inside libpd's
# ring on its two position words, and the calls made by the uninstrumented Qt
# libraries, whose futex-based synchronisation the sanitizer cannot see. Our
# code, the test and the ring's contents are checked in full.
set(ARBO_TSAN_ENV
    "QT_QPA_PLATFORM=offscreen"
    "TSAN_OPTIONS=halt_on_error=1:exitcode=66:second_deadlock_stack=1:suppressions=${CMAKE_CURRENT_SOURCE_DIR}/tst_commandring.tsan-suppressions")

add_test(NAME tst_commandring_tsan COMMAND tst_commandring_tsan
         WORKING_DIRECTORY "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
set_tests_properties(tst_commandring_tsan PROPERTIES
    ENVIRONMENT "${ARBO_TSAN_ENV}"
    PROCESSORS 2
    TIMEOUT 600)

# The canary: a deliberate race in the same executable must be reported and
# must fail the run. If it ever passes, the sanitizer build above has stopped
# catching races (lost its instrumentation, its exit code or its options).
add_test(NAME tst_commandring_tsan_canary
         COMMAND "${CMAKE_COMMAND}" "-DEXECUTABLE=$<TARGET_FILE:tst_commandring_tsan>"
                 -P "${CMAKE_CURRENT_SOURCE_DIR}/tst_commandring_canary.cmake"
         WORKING_DIRECTORY "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
set_tests_properties(tst_commandring_tsan_canary PROPERTIES
    ENVIRONMENT "${ARBO_TSAN_ENV};ARBO_TSAN_CANARY=1"
    TIMEOUT 120)
