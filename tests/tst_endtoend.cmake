# Starts private JACK servers and records from them, runs the program on one
# and plays it with arbo-wand, a JACK MIDI keyboard and OSC. JACK tests never
# run at the same time (each would starve the others' real-time clocks on a
# small machine), and this one keeps both cores to itself while it listens.
add_dependencies(tst_endtoend arbo-wand merrow-tuning-arbo)
set_tests_properties(tst_endtoend PROPERTIES
    RESOURCE_LOCK jack
    PROCESSORS 2
    TIMEOUT 600)
