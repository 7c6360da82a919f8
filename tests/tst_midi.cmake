# Plays the program's MIDI input from JACK MIDI clients of its own on private
# JACK servers, and the real program, and listens to its MIDI output with
# them; JACK tests never run at the same time.
add_dependencies(tst_midi merrow-tuning-arbo)
set_tests_properties(tst_midi PROPERTIES
    RESOURCE_LOCK jack
    TIMEOUT 300)
