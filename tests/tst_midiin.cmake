# Plays the program's MIDI input from JACK MIDI clients of its own on private
# JACK servers, and the real program; JACK tests never run at the same time.
add_dependencies(tst_midiin merrow-tuning-arbo)
set_tests_properties(tst_midiin PROPERTIES
    RESOURCE_LOCK jack
    TIMEOUT 300)
