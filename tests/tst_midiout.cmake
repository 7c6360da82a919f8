# Talks to a private JACK server with a JACK MIDI client of its own.
pkg_check_modules(JACK REQUIRED IMPORTED_TARGET jack)
target_link_libraries(tst_midiout PRIVATE PkgConfig::JACK)
set_tests_properties(tst_midiout PROPERTIES
    RESOURCE_LOCK jack
    TIMEOUT 300)
