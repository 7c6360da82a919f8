# Runs the program on a private JACK server and plays it with arbo-wand, a
# JACK MIDI keyboard and OSC; JACK tests never run at the same time.
add_dependencies(tst_endtoend arbo-wand merrow-tuning-arbo)
set_tests_properties(tst_endtoend PROPERTIES RESOURCE_LOCK jack)
