# Starts a private JACK server; JACK tests never run at the same time.
set_tests_properties(tst_playerthreads PROPERTIES RESOURCE_LOCK jack)

# The same test built again with ThreadSanitizer. Compiled with the sanitizer:
# the test, the player with its parts, the audio output with its callback, the
# command buffers, the events and libpd's ring. Everything else (the model, Qt, libpd,
# PortAudio, JACK) comes uninstrumented from the ordinary libraries. The
# player's and output's moc code also comes from the ordinary library: only
# the test's own is generated here, so no symbol is defined twice.
set(ARBO_PLAYER_TSAN_SOURCES
    "${CMAKE_SOURCE_DIR}/src/sound/pdplayer.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/commanddispatcher.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/playercontrols.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/voicepool.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/patchchanger.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/patchmixer.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/paaudiooutput.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/boundedcall.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/devicerecovery.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/padevicelist.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/paoutputstream.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/portaudiolibrary.cpp"
    "${CMAKE_SOURCE_DIR}/src/sound/pdmessagebuffer.cpp"
    "${CMAKE_SOURCE_DIR}/src/model/arboevent.cpp"
    "${CMAKE_SOURCE_DIR}/src/model/arbonoteevent.cpp")
set_source_files_properties(${ARBO_PLAYER_TSAN_SOURCES} PROPERTIES SKIP_AUTOMOC ON)
add_executable(tst_playerthreads_tsan
    "${CMAKE_CURRENT_SOURCE_DIR}/tst_playerthreads.cpp"
    ${ARBO_PLAYER_TSAN_SOURCES}
    "${LIBPD_RINGBUFFER_SOURCE}")
target_compile_options(tst_playerthreads_tsan PRIVATE -fsanitize=thread)
target_link_options(tst_playerthreads_tsan PRIVATE -fsanitize=thread)
target_link_libraries(tst_playerthreads_tsan PRIVATE arbo_testsupport)

add_test(NAME tst_playerthreads_tsan COMMAND tst_playerthreads_tsan
         WORKING_DIRECTORY "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
set_tests_properties(tst_playerthreads_tsan PROPERTIES
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen;TSAN_OPTIONS=halt_on_error=1:exitcode=66:second_deadlock_stack=1:suppressions=${CMAKE_CURRENT_SOURCE_DIR}/tst_playerthreads.tsan-suppressions"
    RESOURCE_LOCK jack
    TIMEOUT 600)
