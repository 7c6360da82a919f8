# Records from the audio output on a private JACK server and runs the program
# and arbo-render. JACK tests never run at the same time (each would starve
# the others' real-time clocks on a small machine).
add_dependencies(tst_recordlive arbo-render merrow-tuning-arbo)
set_tests_properties(tst_recordlive PROPERTIES
    RESOURCE_LOCK jack
    PROCESSORS 2
    TIMEOUT 300)
