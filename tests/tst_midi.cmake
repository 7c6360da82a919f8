# Plays the program's MIDI input from JACK MIDI clients of its own on a
# private JACK server and listens to its MIDI output with them; JACK tests
# never run at the same time.
set_tests_properties(tst_midi PROPERTIES
    RESOURCE_LOCK jack
    TIMEOUT 300)
