# Runs the program on a private JACK server and plays it with arbo-wand; JACK
# tests never run at the same time.
add_dependencies(tst_wand_endtoend arbo-wand merrow-tuning-arbo)
set_tests_properties(tst_wand_endtoend PROPERTIES RESOURCE_LOCK jack)
